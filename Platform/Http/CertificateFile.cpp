#include "Platform/Http/CertificateFile.h"

#include <array>
#include <cstdint>

namespace CertificateFile {

namespace {

constexpr std::string_view opening = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view closing = "-----END CERTIFICATE-----";
constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The six bits of each letter of base64, negative for all other bytes.
constexpr auto sixBits = [] {
  std::array<std::int8_t, 256> table{};
  table.fill(-1);
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::int8_t>(i);
  }
  return table;
}();

// Line ends and padding are skipped.
std::string decoded(std::string_view base64) {
  std::string bytes(base64.size() / 4 * 3 + 3, '\0');
  std::size_t size = 0;
  std::uint32_t bits = 0;
  int letters = 0;
  for (const unsigned char letter : base64) {
    if (sixBits[letter] < 0) continue;
    bits = bits << 6 | static_cast<std::uint32_t>(sixBits[letter]);
    if (++letters % 4 != 0) continue;
    bytes[size++] = static_cast<char>(bits >> 16);
    bytes[size++] = static_cast<char>(bits >> 8);
    bytes[size++] = static_cast<char>(bits);
  }
  if (letters % 4 >= 2) bytes[size++] = static_cast<char>(bits >> (letters % 4 == 2 ? 4 : 10));
  if (letters % 4 == 3) bytes[size++] = static_cast<char>(bits >> 2);
  bytes.resize(size);
  return bytes;
}

struct Element {
  std::string_view whole;  // empty when there is none
  std::string_view content;
};

// Takes the first DER element off `rest`.
Element take(std::string_view& rest) {
  if (rest.size() < 2) return {};
  std::size_t begin = 2;
  std::size_t size = static_cast<unsigned char>(rest[1]);
  if (size >= 0x80) {
    begin += size - 0x80;
    if (begin > 6 || begin > rest.size()) return {};
    size = 0;
    for (const unsigned char digit : rest.substr(2, begin - 2))
      size = size << 8 | digit;
  }
  if (size > rest.size() - begin) return {};
  const Element element{rest.substr(0, begin + size), rest.substr(begin, size)};
  rest.remove_prefix(begin + size);
  return element;
}

}  // namespace

std::vector<std::string> certificatesIn(std::string_view pem) {
  std::vector<std::string> certificates;
  for (;;) {
    const auto begin = pem.find(opening);
    if (begin == pem.npos) return certificates;
    pem.remove_prefix(begin + opening.size());
    const auto end = pem.find(closing);
    if (end == pem.npos) return certificates;
    certificates.push_back(decoded(pem.substr(0, end)));
    pem.remove_prefix(end);
  }
}

std::string_view subjectOf(std::string_view certificate) {
  std::string_view signedPart = take(certificate).content;
  std::string_view fields = take(signedPart).content;
  constexpr char version = '\xa0';
  if (!fields.empty() && fields.front() == version) take(fields);
  for ([[maybe_unused]] const char* before : {"serial number", "signature", "issuer", "validity"}) {
    if (take(fields).whole.empty()) return {};
  }
  return take(fields).whole;
}

}  // namespace CertificateFile
