// What TLS connections of this process trust.
#pragma once

struct ssl_ctx_st;

namespace Tls {

// A new context for clients, owned by the caller: TLS 1.2 or newer, the server's certificate verified against
// the system's store, in whose place SSL_CERT_FILE and SSL_CERT_DIR may name another file and another
// directory. Null when OpenSSL cannot make one.
ssl_ctx_st* newClientContext();

}  // namespace Tls
