#include "Tests/Support/Certificates.h"

#include <arpa/inet.h>
#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace {

template <auto release>
struct Release {
  template <typename T>
  void operator()(T* object) const {
    release(object);
  }
};
template <typename T, auto release>
using Owned = std::unique_ptr<T, Release<release>>;
using OwnedKey = Owned<EVP_PKEY, EVP_PKEY_free>;
using OwnedX509 = Owned<X509, X509_free>;
using OwnedBio = Owned<BIO, BIO_free_all>;

std::string pemText(const std::function<int(BIO*)>& write) {
  OwnedBio bio(BIO_new(BIO_s_mem()));
  if (!bio || write(bio.get()) != 1) throw std::runtime_error("cannot write PEM");
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &bytes);
  return {bytes, static_cast<std::size_t>(size)};
}

OwnedBio reader(const std::string& pem) {
  return OwnedBio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
}

OwnedX509 readCertificate(const Certificate& certificate) {
  return OwnedX509(PEM_read_bio_X509(reader(certificate.pem).get(), nullptr, nullptr, nullptr));
}

OwnedKey readKey(const Certificate& certificate) {
  return OwnedKey(PEM_read_bio_PrivateKey(reader(certificate.key).get(), nullptr, nullptr, nullptr));
}

void extend(X509* certificate, X509* issuer, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  Owned<X509_EXTENSION, X509_EXTENSION_free> extension(
      X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
  if (!extension || X509_add_ext(certificate, extension.get(), -1) != 1) {
    throw std::runtime_error("cannot add the extension " + value);
  }
}

bool isAddress(const std::string& name) {
  unsigned char bytes[16];
  return inet_pton(AF_INET, name.c_str(), bytes) == 1 || inet_pton(AF_INET6, name.c_str(), bytes) == 1;
}

void reencode(X509_NAME* name) {
  ASN1_STRING* text = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, 0));
  const std::string copy(reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
                         static_cast<std::size_t>(ASN1_STRING_length(text)));
  X509_NAME_ENTRY_free(X509_NAME_delete_entry(name, 0));
  X509_NAME_add_entry_by_txt(name, "CN", V_ASN1_PRINTABLESTRING,
                             reinterpret_cast<const unsigned char*>(copy.c_str()), -1, -1, 0);
}

Certificate make(const std::string& commonName, const std::vector<std::string>& names,
                 const Certificate* authority, IssuerName issuerName) {
  OwnedKey key(EVP_EC_gen("P-256"));
  OwnedX509 certificate(X509_new());
  X509_set_version(certificate.get(), X509_VERSION_3);
  static long serial = 1000;
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
  X509_set_pubkey(certificate.get(), key.get());
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);

  OwnedX509 issuer = authority ? readCertificate(*authority) : nullptr;
  OwnedKey issuerKey = authority ? readKey(*authority) : nullptr;
  X509* signedBy = issuer ? issuer.get() : certificate.get();
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(signedBy));
  if (issuerName == IssuerName::inAnotherEncoding) reencode(X509_get_issuer_name(certificate.get()));
  extend(certificate.get(), signedBy, NID_basic_constraints, authority ? "CA:FALSE" : "critical,CA:TRUE");
  extend(certificate.get(), signedBy, NID_subject_key_identifier, "hash");
  if (authority) extend(certificate.get(), signedBy, NID_authority_key_identifier, "keyid:always");
  std::string alternatives;
  for (const auto& name : names) {
    alternatives += (alternatives.empty() ? "" : ",") + std::string(isAddress(name) ? "IP:" : "DNS:") + name;
  }
  if (!alternatives.empty()) extend(certificate.get(), signedBy, NID_subject_alt_name, alternatives);
  if (X509_sign(certificate.get(), issuerKey ? issuerKey.get() : key.get(), EVP_sha256()) == 0) {
    throw std::runtime_error("cannot sign a certificate");
  }
  return {pemText([&](BIO* bio) { return PEM_write_bio_X509(bio, certificate.get()); }),
          pemText([&](BIO* bio) {
            return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
          })};
}

}  // namespace

Certificate makeAuthority(const std::string& commonName) {
  return make(commonName, {}, nullptr, IssuerName::asItsSubject);
}

Certificate makeServerCertificate(const Certificate& authority, const std::vector<std::string>& names,
                                  IssuerName issuerName) {
  return make("Test Server", names, &authority, issuerName);
}

std::string subjectInDer(const Certificate& certificate) {
  const auto decoded = readCertificate(certificate);
  const unsigned char* bytes = nullptr;
  std::size_t size = 0;
  X509_NAME_get0_der(X509_get_subject_name(decoded.get()), &bytes, &size);
  return {reinterpret_cast<const char*>(bytes), size};
}

std::string hashedName(const Certificate& certificate) {
  char name[16];
  std::snprintf(name, sizeof name, "%08lx.0", X509_subject_name_hash(readCertificate(certificate).get()));
  return name;
}
