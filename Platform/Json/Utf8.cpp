#include "Platform/Json/Utf8.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace Utf8 {
namespace {

constexpr std::size_t blockSize = 16;

// Whether the bytes of a block continue what they and the three before them begin, and nothing else.
bool isValidBlock(const char* block) {
  using Bytes [[gnu::vector_size(blockSize)]] = signed char;
  const auto behind = [&](int distance) {
    Bytes bytes;
    std::memcpy(&bytes, block - distance, blockSize);
    return bytes;
  };
  const auto byte = [](int value) { return static_cast<signed char>(value); };
  // Vectors of signed bytes alone are compared by one instruction everywhere, so the highest bit is flipped.
  const auto atLeast = [&](const Bytes& some, int least) { return (some ^ byte(0x80)) > byte(least - 0x81); };

  const Bytes bytes = behind(0), first = behind(1), second = behind(2), third = behind(3);
  const Bytes continues = bytes < byte(0xC0), below90 = bytes < byte(0x90), belowA0 = bytes < byte(0xA0);
  const Bytes due = atLeast(first, 0xC2) | atLeast(second, 0xE0) | atLeast(third, 0xF0);
  const Bytes unused = ((bytes & ~1) == byte(0xC0)) | atLeast(bytes, 0xF5);
  const Bytes overlong = ((first == byte(0xE0)) & belowA0) | ((first == byte(0xF0)) & below90);
  const Bytes beyond = ((first == byte(0xED)) & ~belowA0) | ((first == byte(0xF4)) & ~below90);
  const Bytes wrong = (continues ^ due) | unused | overlong | beyond;
  std::uint64_t words[2];
  std::memcpy(words, &wrong, blockSize);
  return (words[0] | words[1]) == 0;
}

// Whether a block or the three bytes before it hold anything beyond ASCII.
bool isBeyondAscii(const char* block) {
  std::uint64_t words[3];
  std::memcpy(&words[0], block - 3, 8);
  std::memcpy(&words[1], block + 3, 8);
  std::memcpy(&words[2], block + 8, 8);
  return (words[0] | words[1] | words[2]) & 0x8080'8080'8080'8080;
}

// As isValidBlock where the text does not reach over the whole block or the bytes before it.
bool isValidEdge(std::string_view text, std::size_t at) {
  char padded[3 + blockSize] = {};
  const std::size_t before = std::min<std::size_t>(at, 3);
  text.copy(padded + 3 - before, before + blockSize, at - before);
  return !isBeyondAscii(padded + 3) || isValidBlock(padded + 3);
}

}  // namespace

Character first(std::string_view text) {
  if (text.empty()) return {};
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return {lead, 1};
  const std::size_t size = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (lead < 0xC0 || lead >= 0xF8 || text.size() < size) return {};
  constexpr char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};  // that needs so many bytes
  char32_t point = lead & 0x7Fu >> size;
  for (std::size_t i = 1; i < size; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte >> 6 != 0b10) return {};
    point = point << 6 | (byte & 0x3Fu);
  }
  if (point < least[size] || (point >= 0xD800 && point <= 0xDFFF) || point > 0x10FFFF) return {};
  return {point, size};
}

bool isValid(std::string_view text) {
  if (!isValidEdge(text, 0)) return false;
  // Blocks with something beyond ASCII come at random: a branch for each would cost more than the check. They
  // are gathered, and checked many at a time.
  const char* gathered[64];
  std::size_t count = 0, at = blockSize;
  const auto areValid = [&] { return std::all_of(gathered, gathered + count, isValidBlock); };
  for (; at + blockSize <= text.size(); at += blockSize) {
    gathered[count] = text.data() + at;
    count += isBeyondAscii(text.data() + at);
    if (count < std::size(gathered)) continue;
    if (!areValid()) return false;
    count = 0;
  }
  return areValid() && (at > text.size() || isValidEdge(text, at));
}

std::string repaired(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const Character character = first(text);
    append(out, character.point);
    text.remove_prefix(std::max<std::size_t>(character.size, 1));
  }
  return out;
}

void append(std::string& out, char32_t point) {
  if (point < 0x80) {
    out += static_cast<char>(point);
    return;
  }
  int trailing = point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
  constexpr unsigned char leads[] = {0, 0xC0, 0xE0, 0xF0};
  out += static_cast<char>(leads[trailing] | point >> 6 * trailing);
  while (trailing-- > 0)
    out += static_cast<char>(0x80 | (point >> 6 * trailing & 0x3F));
}

}  // namespace Utf8
