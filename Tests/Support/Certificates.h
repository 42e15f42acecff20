// X.509 certificates made on the spot, for servers that tests start.
#pragma once

#include <string>
#include <vector>

struct Certificate {
  std::string pem;
  std::string key;  // PEM, unencrypted
};

// A new authority that signs only itself.
Certificate makeAuthority(const std::string& commonName = "Test Authority");

// A server certificate signed by `authority`; each name is a host name or a literal address.
Certificate makeServerCertificate(const Certificate& authority, const std::vector<std::string>& names);

// The name under which a certificate directory looks this certificate up, as in "5ad8a5d6.0".
std::string hashedName(const Certificate& certificate);
