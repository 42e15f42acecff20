// Text as people see it. All texts are UTF-8; ill-formed sequences count as replacement characters (U+FFFD).
// Plain ASCII takes a path of its own that touches no Unicode table. Nothing here fails.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Text {

// The first `count` user-perceived characters (extended grapheme clusters, UAX #29) of `text`, or all of it
// when it has no more. A carriage return and its line feed are one character; so are a flag and an emoji
// sequence. Never cuts inside one. Reads no further than the cut.
std::string_view prefix(std::string_view text, std::size_t count);

enum class Space {
  blanks,      // space and horizontal tab
  horizontal,  // horizontal tab and the Unicode space separators (category Zs)
  any,         // those, and the line breaks U+000A to U+000D, U+0085, U+2028, U+2029
};

// `text` without white space of the given kind at both ends.
std::string_view trim(std::string_view text, Space kind);

// `text` without any of `characters` at both ends.
std::string_view trim(std::string_view text, std::string_view characters);

// Takes what stands before the first of the characters `separators` from the front of `rest`, and that
// separator with it; all of `rest` when there is none. So a text falls into its lines or words:
//   while (!rest.empty()) use(Text::takePart(rest, "\n"));
std::string_view takePart(std::string_view& rest, std::string_view separators);

// Lower case by the root locale's full mapping.
std::string lowercased(std::string_view text);

// The form in which texts that differ only in case are equal (full case folding).
std::string folded(std::string_view text);

bool isAscii(std::string_view text);

// Whether `part` stands in `text`, byte for byte, in time linear in both. An empty `part` never does.
bool contains(std::string_view text, std::string_view part);

}  // namespace Text
