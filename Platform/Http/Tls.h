// What TLS connections of this process trust: the system's certificates, in whose place SSL_CERT_FILE and
// SSL_CERT_DIR may name another file and another directory (none when empty).
#pragma once

#include <string>

struct ssl_ctx_st;
struct ssl_st;

namespace Tls {

struct Store {
  std::string file;       // empty: none
  std::string directory;  // of files named by the hashes of their subjects; empty: none
};

// What is trusted: what the two variables name, and for one that is not set what is found at the places below
// `root` at which distributions keep certificates: a directory, or else a file.
Store systemStore(const std::string& root = "");

enum class Trust {
  onDemand,  // certificates are looked up when a server's chain asks for them, and decoded only then
  whole,     // a certificate file is loaded with all it holds, which takes some 30 ms for a system's bundle
};

// A new context for clients, owned by the caller: TLS 1.2 or newer, the server's certificate verified. Null
// when OpenSSL cannot make one. `onDemand` finds an issuer by the bytes of its name, so that it misses one
// whose name is written in another encoding than in the certificate that it issued: what it does not verify,
// `whole` may.
ssl_ctx_st* newClientContext(Trust trust);

// Has `connection` ask for `host`, a name or a literal address, and accept a certificate for nothing else.
// False when it cannot be asked for; then the connection must not be used.
bool expectHost(ssl_st* connection, const std::string& host);

struct Verdict {
  bool isTrusted;
  bool needsWhole;  // nobody vouches for it, but `whole` may find somebody in a certificate file
  std::string reason;
};

// On the server's certificate, after a handshake.
Verdict verdictOn(ssl_st* connection);

}  // namespace Tls
