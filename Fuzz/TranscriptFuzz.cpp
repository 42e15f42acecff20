// Reads arbitrary bytes as a transcript from an arbitrary offset. Each line is also read a byte at a time,
// and the whole a second time with every line written anew from all that it holds.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "Hook/Transcript/Transcript.h"
#include "Platform/Json/Utf8.h"
#include "Platform/Text.h"

namespace {

// The grammar, a byte at a time. `taken` is the text without the white space between its values.
struct Plain {
  std::string_view rest;
  std::string taken;

  bool is(std::string_view any) const { return !rest.empty() && any.find(rest[0]) != any.npos; }
  bool take(std::string_view any) { return is(any) && take(1); }
  bool take(std::size_t count) {
    taken += rest.substr(0, count);
    rest.remove_prefix(count);
    return count > 0;
  }
  bool sign(std::string_view any) {
    while (is(" \t\r\n"))
      rest.remove_prefix(1);
    return take(any);
  }
  bool text(int depth = 0) { return value(depth) && !sign("") && rest.empty(); }
  bool value(int depth) {
    const bool object = sign("{");
    if (object || sign("[")) {
      if (depth == JsonReader::maxDepth) return false;
      if (sign(object ? "}" : "]")) return true;
      do {
        if (object && !(sign("\"") && string() && sign(":"))) return false;
        if (!value(depth + 1)) return false;
      } while (sign(","));
      return sign(object ? "}" : "]");
    }
    if (take("\"")) return string();
    for (const std::string_view literal : {"true", "false", "null"})
      if (rest.starts_with(literal)) return take(literal.size());
    take("-");
    if (!take("0") && !digits()) return false;
    if (take(".") && !digits()) return false;
    return !take("eE") || (take("+-"), digits());
  }
  bool digits() {
    if (!take("0123456789")) return false;
    while (take("0123456789")) {
    }
    return true;
  }
  bool string() {
    while (!take("\"")) {
      if (take("\\")) {
        if (take("\"\\/bfnrt")) continue;
        if (!take("u")) return false;
        for (int i = 0; i < 4; ++i)
          if (!take("0123456789abcdefABCDEF")) return false;
      } else if (rest.empty() || (rest[0] >= 0 && rest[0] < ' ') || !take(Utf8::first(rest).size)) {
        return false;
      }
    }
    return true;
  }
};

std::string walked(JsonView view) {
  std::string parts;
  for (const JsonView element : view.elements())
    parts += (parts.empty() ? "" : ",") + walked(element);
  for (const auto& [key, value] : view.members())
    parts += (parts.empty() ? "" : ",") + std::string(key.spelling()) + ":" + walked(value);
  return view.isList()     ? "[" + parts + "]"
         : view.isObject() ? "{" + parts + "}"
                           : std::string(view.spelling());
}

// The lines that reading takes, each written anew; none when the bytes are not UTF-8 as a whole.
std::string writtenAnew(std::string_view content, std::int64_t startOffset) {
  if (startOffset >= 1 && startOffset <= static_cast<std::int64_t>(content.size()))
    content.remove_prefix(static_cast<std::size_t>(startOffset));
  std::string written;
  bool valid = true, discarding = startOffset >= 1;
  for (std::size_t at = 0, begin = 0; at <= content.size(); ++at) {
    if (at < content.size() && (content[at] != '\n' || (at > begin && content[at - 1] == '\r'))) continue;
    const std::string_view line = content.substr(begin, at - begin);
    JsonReader reader;
    const JsonView view = reader.read(line);
    Plain plain{line, {}};
    if (plain.text() != bool(view) || (view && walked(view) != plain.taken)) std::abort();
    if (view && !discarding) written += Json::of(view).compact() + "\n";
    discarding = false;
    begin = at + 1;
  }
  for (std::string_view rest = content; !rest.empty() && valid;
       rest.remove_prefix(valid ? Utf8::first(rest).size : 0))
    valid = Utf8::first(rest).size > 0;
  if (valid != Utf8::isValid(content)) std::abort();
  return valid ? written : "";
}

TranscriptSummary parsed(std::string_view content, std::int64_t startOffset) {
  static const int file = ::memfd_create("transcript", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  if (::ftruncate(file, 0) != 0 ||
      ::pwrite(file, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size()))
    std::abort();
  return Transcript::parse(path, startOffset);
}

}  // namespace

// The first two bytes say where reading starts: from one before the file to a few bytes behind it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::string_view content(reinterpret_cast<const char*>(data) + 2, size - 2);
  const auto startOffset = static_cast<std::int64_t>((data[0] | data[1] << 8) % (content.size() + 5)) - 1;
  if (parsed(content, startOffset) != parsed(writtenAnew(content, startOffset), 0)) std::abort();
  return 0;
}
