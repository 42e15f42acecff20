#include "Platform/Http/CertificateFile.h"

#include <openssl/evp.h>

#include <algorithm>
#include <optional>

namespace CertificateFile {

namespace {

constexpr std::string_view opening = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view closing = "-----END CERTIFICATE-----";

// Line by line; a line that is no base64 is left out.
std::string decoded(std::string_view base64) {
  std::string bytes(base64.size(), '\0');
  auto* end = reinterpret_cast<unsigned char*>(bytes.data());
  while (!base64.empty()) {
    const auto line = base64.substr(0, base64.find('\n'));
    base64.remove_prefix(std::min(line.size() + 1, base64.size()));
    const auto* letters = reinterpret_cast<const unsigned char*>(line.data());
    end += std::max(EVP_DecodeBlock(end, letters, static_cast<int>(line.size())), 0);
  }
  bytes.resize(static_cast<std::size_t>(end - reinterpret_cast<unsigned char*>(bytes.data())));
  return bytes;
}

struct Sizes {
  std::size_t header;
  std::size_t content;
};

// Of the first DER element; absent when its header does not end within `bytes`.
std::optional<Sizes> sizesOf(std::string_view bytes) {
  if (bytes.size() < 2) return std::nullopt;
  Sizes sizes{2, static_cast<unsigned char>(bytes[1])};
  if (sizes.content < 0x80) return sizes;
  sizes.header += sizes.content - 0x80;
  if (sizes.header > 6 || sizes.header > bytes.size()) return std::nullopt;
  sizes.content = 0;
  for (const unsigned char digit : bytes.substr(2, sizes.header - 2))
    sizes.content = sizes.content << 8 | digit;
  return sizes;
}

// The name in a certificate of which `bytes` may be but the beginning; empty when it does not end within
// them.
std::string_view subjectOf(std::string_view bytes) {
  for ([[maybe_unused]] const char* sequence : {"the certificate", "what is signed of it"}) {
    const auto sizes = sizesOf(bytes);
    if (!sizes) return {};
    bytes.remove_prefix(sizes->header);
  }
  constexpr char version = '\xa0';
  // It stands behind the version, if there is one, serial number, signature, issuer and validity.
  for (int before = bytes.starts_with(version) ? 5 : 4;; --before) {
    const auto sizes = sizesOf(bytes);
    if (!sizes || sizes->content > bytes.size() - sizes->header) return {};
    const auto element = bytes.substr(0, sizes->header + sizes->content);
    if (before == 0) return element;
    bytes.remove_prefix(element.size());
  }
}

}  // namespace

std::vector<std::string> certificatesOf(std::string_view subject, std::string_view pem) {
  constexpr std::size_t usual = 8 * 65;  // letters in whose lines nearly every subject ends
  std::vector<std::string> found;
  for (;;) {
    const auto begin = pem.find(opening);
    if (begin == pem.npos) return found;
    pem.remove_prefix(begin + opening.size());
    const auto end = pem.find(closing);
    if (end == pem.npos) return found;
    auto bytes = decoded(pem.substr(0, std::min(usual, end)));
    if (subjectOf(bytes).empty()) bytes = decoded(pem.substr(0, end));
    if (subjectOf(bytes) == subject) found.push_back(decoded(pem.substr(0, end)));
    pem.remove_prefix(end);
  }
}

}  // namespace CertificateFile
