#include "Platform/Http/Tls.h"

#include <dirent.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Files.h"
#include "Platform/Http/CertificateFile.h"
#include "Platform/Process.h"

namespace Tls {

namespace {

bool isHashedName(std::string_view name) {
  return name.size() == 10 && name.substr(8) == ".0" && name.find_first_not_of("0123456789abcdef") == 8;
}

bool hasHashedNames(const std::string& directory) {
  DIR* stream = ::opendir(directory.c_str());
  if (!stream) return false;
  const dirent* entry;
  while ((entry = ::readdir(stream)) && !isHashedName(entry->d_name)) {
  }
  ::closedir(stream);
  return entry != nullptr;
}

bool isReadable(const std::string& file) {
  return ::access(file.c_str(), R_OK) == 0;
}

// The first of the paths below `root` that is one; empty when none is.
template <typename Paths, typename Test>
std::string firstOf(const Paths& paths, const std::string& root, Test&& isOne) {
  for (const char* path : paths)
    if (isOne(root + path)) return root + path;
  return "";
}

struct LazyFile {
  std::string path;
  std::optional<std::string> content;
};

// Adds the file's certificates of that name to the store and hands out the first.
int findInFile(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* name, X509_OBJECT* found) {
  auto* file = static_cast<LazyFile*>(X509_LOOKUP_get_method_data(lookup));
  const unsigned char* bytes = nullptr;
  std::size_t size = 0;
  if (type != X509_LU_X509 || X509_NAME_get0_der(name, &bytes, &size) != 1) return 0;
  const std::string_view subject(reinterpret_cast<const char*>(bytes), size);
  if (!file->content) file->content = Files::read(file->path).value_or("");
  X509_STORE* store = X509_LOOKUP_get_store(lookup);
  for (const auto& certificate : CertificateFile::certificatesOf(subject, *file->content)) {
    const auto* der = reinterpret_cast<const unsigned char*>(certificate.data());
    X509* decoded = d2i_X509(nullptr, &der, static_cast<long>(certificate.size()));
    if (decoded) X509_STORE_add_cert(store, decoded);
    X509_free(decoded);
  }
  const X509_OBJECT* match = X509_OBJECT_retrieve_by_subject(X509_STORE_get0_objects(store), type, name);
  if (!match || X509_OBJECT_set1_X509(found, X509_OBJECT_get0_X509(match)) != 1) return 0;
  X509_free(X509_OBJECT_get0_X509(found));  // the caller expects to be lent the store's own reference
  return 1;
}

X509_LOOKUP_METHOD* fileMethod() {
  static X509_LOOKUP_METHOD* const method = [] {
    X509_LOOKUP_METHOD* made = X509_LOOKUP_meth_new("certificates of a file, on demand");
    X509_LOOKUP_meth_set_get_by_subject(made, findInFile);
    X509_LOOKUP_meth_set_free(made, [](X509_LOOKUP* lookup) {
      delete static_cast<LazyFile*>(X509_LOOKUP_get_method_data(lookup));
    });
    return made;
  }();
  return method;
}

void trustFile(SSL_CTX* context, const std::string& path, Trust trust) {
  if (trust == Trust::whole) {
    SSL_CTX_load_verify_file(context, path.c_str());
    return;
  }
  X509_LOOKUP* lookup = X509_STORE_add_lookup(SSL_CTX_get_cert_store(context), fileMethod());
  if (lookup) X509_LOOKUP_set_method_data(lookup, new LazyFile{path, std::nullopt});
}

}  // namespace

// The places of Debian, Fedora, SUSE, Alpine, macOS and their kin.
Store systemStore(const std::string& root) {
  const auto file = Process::environment(X509_get_default_cert_file_env());
  const auto directory = Process::environment(X509_get_default_cert_dir_env());
  if (file && directory) return {*file, *directory};
  const char* directories[] = {
      X509_get_default_cert_dir(),
      "/etc/ssl/certs",
      "/etc/pki/tls/certs",
      "/etc/pki/ca-trust/extracted/pem/directory-hash",
      "/var/lib/ca-certificates/openssl",
  };
  const char* bundles[] = {
      "/etc/ssl/certs/ca-certificates.crt",
      "/etc/pki/tls/certs/ca-bundle.crt",
      "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",
      "/etc/ssl/ca-bundle.pem",
      "/var/lib/ca-certificates/ca-bundle.pem",
      "/etc/ssl/cert.pem",
      "/opt/homebrew/etc/ca-certificates/cert.pem",
      "/usr/local/etc/ca-certificates/cert.pem",
  };
  const std::string hashed = firstOf(directories, root, hasHashedNames);
  const std::string bundle = hashed.empty() ? firstOf(bundles, root, isReadable) : "";
  return {file.value_or(bundle), directory.value_or(hashed)};
}

ssl_ctx_st* newClientContext(Trust trust) {
  // The system's OpenSSL configuration is for other programs' needs (engines, providers) and may be broken.
  // Nor is there anything to clean up at the end of a process.
  // The table of ciphers by old names is for callers that use those; to fill it costs a tenth of a handshake.
  OPENSSL_init_ssl(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT | OPENSSL_INIT_NO_ADD_ALL_CIPHERS,
                   nullptr);
  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  if (!context) return nullptr;
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  // What cannot be read is not trusted: verification tells. A file comes before a directory, as in OpenSSL's
  // own defaults.
  const Store store = systemStore();
  if (!store.file.empty()) trustFile(context, store.file, trust);
  if (!store.directory.empty()) SSL_CTX_load_verify_dir(context, store.directory.c_str());
  return context;
}

bool expectHost(ssl_st* connection, const std::string& host) {
  X509_VERIFY_PARAM* expected = SSL_get0_param(connection);
  X509_VERIFY_PARAM_set_hostflags(expected, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  if (X509_VERIFY_PARAM_set1_ip_asc(expected, host.c_str()) == 1) return true;
  return X509_VERIFY_PARAM_set1_host(expected, host.c_str(), host.size()) == 1 &&
         SSL_set_tlsext_host_name(connection, host.c_str()) == 1;
}

Verdict verdictOn(ssl_st* connection) {
  const long verdict = SSL_get_verify_result(connection);
  const bool isIssuerUnknown = verdict == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY ||
                               verdict == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT ||
                               verdict == X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE ||
                               verdict == X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN;
  return {verdict == X509_V_OK, isIssuerUnknown && !systemStore().file.empty(),
          X509_verify_cert_error_string(verdict)};
}

}  // namespace Tls
