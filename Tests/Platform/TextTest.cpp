#include "Platform/Text.h"

#include <gtest/gtest.h>

#include <string>

#include "Tests/Support/Repeated.h"
#include "Tests/Support/Table.h"

namespace {

// The encoding of a code point of two or three bytes.
std::string utf8(std::uint32_t point) {
  std::string bytes;
  if (point < 0x800)
    bytes += static_cast<char>(0xC0 | point >> 6);
  else
    (bytes += static_cast<char>(0xE0 | point >> 12)) += static_cast<char>(0x80 | (point >> 6 & 0x3F));
  return bytes += static_cast<char>(0x80 | (point & 0x3F));
}

// A "|" stands where the first so many characters end.
TEST(TextPrefix, CutsOnlyBetweenUserPerceivedCharacters) {
  const std::pair<std::size_t, std::string> cuts[] = {
      {0, "|abc"},
      {3, "|"},
      {4, "abc|"},
      {3, "abc|"},
      {3, "abc|d"},
      {2, "äö|ü"},
      {4, "äöü|"},
      {2, "ab|ä"},
      // line ends
      {2, "a\r\n|b"},
      {2, "a\n|\nb"},
      {2, "a\n|\rb"},
      {2, "a\r|"},
      {2, "a\r|bc"},
      {3, "a\rb|c"},
      {4, "äbc\r\n|d"},
      {2, "ä\r|b"},
      // accents, joiners, emoji, flags, syllables
      {3, "abe\u0301|f"},
      {2, "a\r\n|\u0301b"},
      {1, "👨‍👩‍👧|x"},
      {1, "🇩🇪|🇫🇷"},
      {2, "👍🏽a|"},
      {1, "a\u200D|b"},
      {1, "\u1112\u1161\u11AB|x"},
      {0, "|\u0301a"},
      {4, "→“漢”|—字"},
      {1, "ж\u0301|→a"},
      {2, "漢字\u0301|a"},
      {2, "→✔\uFE0F|a"},
      // ill-formed bytes, the second an encoding longer than need be
      {2, "a\xFF|z"},
      {3, "\xE0\x82\xA0|z"},
  };
  for (const auto& [count, marked] : cuts) {
    const std::size_t cut = marked.find('|');
    const std::string text = marked.substr(0, cut) + marked.substr(cut + 1);
    EXPECT_EQ(Text::prefix(text, count), marked.substr(0, cut)) << marked;
  }
  const std::string accents = "e" + repeated("\u0301", 100'000) + "f";
  EXPECT_EQ(Text::prefix(accents, 1).size(), accents.size() - 1);
  EXPECT_EQ(Text::prefix(accents, 2), accents);
}

TEST(TextPrefix, TakesTheSameCharactersWithAndWithoutTheBreakIterator) {
  // An emoji in front makes the whole text the break iterator's; each code point of up to three bytes must
  // then come out as it does behind a letter.
  const std::string emoji = "🙂";
  for (std::uint32_t point = 0x80; point <= 0xFFFF; ++point) {
    if (point >= 0xD800 && point <= 0xDFFF) continue;
    const std::string text = "漢" + utf8(point) + "x" + utf8(point) + utf8(point) + "→";
    ASSERT_EQ(emoji + std::string(Text::prefix(text, 4)), Text::prefix(emoji + text, 5)) << std::hex << point;
  }
}

TEST(Text, IsTrimmedAtBothEnds) {
  using enum Text::Space;
  const std::tuple<std::string, Text::Space, std::string> kinds[] = {
      {" \t a b\t ", blanks, "a b"},
      {" \n a", blanks, "\n a"},
      {"\u00A0a", blanks, "\u00A0a"},
      {"\u3000\u00A0\u2003\ta\u202F\u1680", horizontal, "a"},
      {"\ra\n", horizontal, "\ra\n"},
      {"\v\f\r\n\u0085\u2028a\u2029\u00A0", any, "a"},
      {"\u200Ba\u200B", any, "\u200Ba\u200B"},
      {"\x1F", any, "\x1F"},
      {" \t\u2000", any, ""},
      {"à", any, "à"},
      {"a\xC2\x60", any, "a\xC2\x60"},
  };
  for (const auto& [text, kind, trimmed] : kinds)
    EXPECT_EQ(Text::trim(text, kind), trimmed) << text;
  for (const auto& row : rows(R"(
      /a/b/ ¦ /   ¦ a/b
      a     ¦ /   ¦ a
      ///   ¦ /   ¦
            ¦ /   ¦
      ␊␠a ␉ ¦ ␠␉␊ ¦ a
      )"))
    EXPECT_EQ(Text::trim(row[0], row[1]), row[2]) << row[0];
}

TEST(Text, FallsIntoParts) {
  for (const auto& row : rows(R"(
      a,b     ¦ ,   ¦ (a)(b)
      a,,b,   ¦ ,   ¦ (a)()(b)
      ,       ¦ ,   ¦ ()
              ¦ ,   ¦
      a, b␉c, ¦ ,␠␉ ¦ (a)()(b)(c)
      )")) {
    std::string parts;
    for (std::string_view rest = row[0]; !rest.empty();)
      parts.append("(").append(Text::takePart(rest, row[1])).append(")");
    EXPECT_EQ(parts, row[2]) << row[0];
  }
}

TEST(Text, MapsCaseBeyondAscii) {
  EXPECT_EQ(Text::lowercased("ABC [xyz] @Z"), "abc [xyz] @z");
  EXPECT_EQ(Text::lowercased("ÄÖÜ"), "äöü");
  EXPECT_EQ(Text::lowercased("İ"), "i\u0307") << "full mapping, longer than the text";
  EXPECT_EQ(Text::folded("Straße \u212A"), "strasse k");
}

TEST(Text, ContainsParts) {
  EXPECT_TRUE(Text::contains("abc", "bc"));
  EXPECT_TRUE(Text::contains("abc", "abc"));
  for (const char* part : {"", "abcd", "ac", "B"})
    EXPECT_FALSE(Text::contains("abc", part)) << part;
  EXPECT_FALSE(Text::contains("", ""));
}

}  // namespace
