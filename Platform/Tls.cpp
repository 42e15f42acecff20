#include "Platform/Tls.h"

#include <dirent.h>
#include <openssl/ssl.h>
#include <stdlib.h>
#include <unistd.h>

#include <string_view>

namespace Tls {

namespace {

// Directories hold one file for each certificate, named by its hash, and are searched only for the issuers
// that a server's chain needs. Reading a whole bundle costs 20 times as much, so it is for systems that have
// no more.
constexpr const char* bundles[] = {
    "/etc/ssl/certs/ca-certificates.crt",
    "/etc/pki/tls/certs/ca-bundle.crt",
    "/etc/ssl/ca-bundle.pem",
    "/etc/ssl/cert.pem",
    "/opt/homebrew/etc/ca-certificates/cert.pem",
};

bool isHashedName(std::string_view name) {
  return name.size() == 10 && name.substr(8) == ".0" && name.find_first_not_of("0123456789abcdef") == 8;
}

bool hasHashedNames(const char* directory) {
  DIR* stream = ::opendir(directory);
  if (!stream) return false;
  const dirent* entry;
  while ((entry = ::readdir(stream)) && !isHashedName(entry->d_name)) {
  }
  ::closedir(stream);
  return entry != nullptr;
}

const char* systemDirectory() {
  for (const char* directory : {X509_get_default_cert_dir(), "/etc/ssl/certs", "/etc/pki/tls/certs",
                                "/etc/pki/ca-trust/extracted/pem/directory-hash"}) {
    if (hasHashedNames(directory)) return directory;
  }
  return nullptr;
}

const char* systemBundle() {
  for (const char* bundle : bundles) {
    if (::access(bundle, R_OK) == 0) return bundle;
  }
  return nullptr;
}

void trustSystemStore(SSL_CTX* context) {
  const char* file = ::getenv(X509_get_default_cert_file_env());
  const char* directory = ::getenv(X509_get_default_cert_dir_env());
  if (!file || !directory) {
    const char* hashed = systemDirectory();
    if (!directory) directory = hashed;
    if (!file && !hashed) file = systemBundle();
  }
  // What cannot be read is not trusted: verification tells.
  if (file) SSL_CTX_load_verify_file(context, file);
  if (directory) SSL_CTX_load_verify_dir(context, directory);
}

}  // namespace

ssl_ctx_st* newClientContext() {
  // The system's OpenSSL configuration is for other programs' needs (engines, providers) and may be broken.
  OPENSSL_init_ssl(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  if (!context) return nullptr;
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  trustSystemStore(context);
  return context;
}

}  // namespace Tls
