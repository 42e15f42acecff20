#include "Platform/Text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Tests/Support/Repeated.h"
#include "Tests/Support/Table.h"

namespace {

using Text::Space;

// The encoding of a code point of two or three bytes.
std::string utf8(std::uint32_t point) {
  std::string bytes;
  if (point < 0x800)
    bytes += static_cast<char>(0xC0 | point >> 6);
  else
    (bytes += static_cast<char>(0xE0 | point >> 12)) += static_cast<char>(0x80 | (point >> 6 & 0x3F));
  return bytes += static_cast<char>(0x80 | (point & 0x3F));
}

TEST(TextPrefix, CutsOnlyBetweenUserPerceivedCharacters) {
  struct Row {
    const char* sentence;
    std::string text;
    std::size_t count;
    std::string expected;
  };
  const std::string family = "👨‍👩‍👧";
  const std::vector<Row> rows = {
      {"nothing of a text is the empty text", "abc", 0, ""},
      {"the empty text has no characters", "", 3, ""},
      {"a shorter text is whole", "abc", 4, "abc"},
      {"a text of exactly the count is whole", "abc", 3, "abc"},
      {"one more is cut", "abcd", 3, "abc"},
      {"a carriage return and its line feed are one in plain ASCII", "a\r\nb", 2, "a\r\n"},
      {"two line feeds are two", "a\n\nb", 2, "a\n"},
      {"a line feed before a carriage return is two", "a\n\rb", 2, "a\n"},
      {"a carriage return at the end stands alone", "a\r", 2, "a\r"},
      {"an accent after the cut belongs to the last character", "abe\u0301f", 3, "abe\u0301"},
      {"an accent after a line break stands alone", "a\r\n\u0301b", 2, "a\r\n"},
      {"a letter of two bytes is one", "äöü", 2, "äö"},
      {"a text of fewer characters than bytes is whole", "äöü", 4, "äöü"},
      {"a letter beyond ASCII after the cut is left out", "abä", 2, "ab"},
      {"a family of emoji is one", family + "x", 1, family},
      {"a flag is one, and the next flag another", "🇩🇪🇫🇷", 1, "🇩🇪"},
      {"a skin tone belongs to its emoji", "👍🏽a", 1, "👍🏽"},
      {"Hangul jamo make one syllable", "\u1112\u1161\u11ABx", 1, "\u1112\u1161\u11AB"},
      {"ASCII after a letter beyond it goes on counting", "äbc\r\nd", 4, "äbc\r\n"},
      {"a joiner after ASCII belongs to it", "a\u200Db", 1, "a\u200D"},
      {"nothing is taken of a text that begins with an accent", "\u0301a", 0, ""},
      {"an ill-formed byte counts as a character", "a\xFFz", 2, "a\xFF"},
      {"punctuation, arrows and ideographs are one each", "→“漢”—字", 4, "→“漢”"},
      {"an accent joins a letter beyond ASCII", "ж\u0301→a", 1, "ж\u0301"},
      {"an accent joins the letter before the cut", "漢字\u0301a", 2, "漢字\u0301"},
      {"a sign with an emoji's variation is one", "→✔\uFE0Fa", 2, "→✔\uFE0F"},
      {"an encoding longer than need be is ill-formed", "\xE0\x82\xA0z", 3, "\xE0\x82\xA0"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Text::prefix(row.text, row.count), row.expected) << row.sentence;
  }
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

TEST(TextPrefix, KeepsAnyNumberOfAccentsOnOneCharacter) {
  const std::string text = "e" + repeated("\u0301", 100'000) + "f";
  EXPECT_EQ(Text::prefix(text, 1).size(), text.size() - 1);
  EXPECT_EQ(Text::prefix(text, 2), text);
}

TEST(TextTrim, RemovesEachKindAtBothEndsAndNothingWithin) {
  struct Row {
    const char* sentence;
    std::string text;
    Space kind;
    std::string expected;
  };
  const std::vector<Row> rows = {
      {"blanks are space and tab", " \t a b\t ", Space::blanks, "a b"},
      {"blanks leave a line feed and what is within it", " \n a", Space::blanks, "\n a"},
      {"blanks leave a no-break space", "\u00A0a", Space::blanks, "\u00A0a"},
      {"horizontal white space has the Unicode separators", "\u3000\u00A0\u2003\ta\u202F\u1680",
       Space::horizontal, "a"},
      {"horizontal white space has no line break", "\ra\n", Space::horizontal, "\ra\n"},
      {"any white space has the line breaks", "\v\f\r\n\u0085\u2028a\u2029\u00A0", Space::any, "a"},
      {"a zero-width space is none", "\u200Ba\u200B", Space::any, "\u200Ba\u200B"},
      {"a control character is none",
       "\x1F"
       "a",
       Space::any,
       "\x1F"
       "a"},
      {"a text of white space is empty", " \t\u2000", Space::any, ""},
      {"a letter whose last byte looks like white space stays", "à", Space::any, "à"},
      {"ill-formed bytes stay", "a\xC2\x60", Space::any, "a\xC2\x60"},
  };
  for (const Row& row : rows)
    EXPECT_EQ(Text::trim(row.text, row.kind), row.expected) << row.sentence;
}

TEST(TextTrim, RemovesGivenCharactersAtBothEnds) {
  for (const auto& row : rows(R"(
      /a/b/ ¦ / ¦ a/b
      a     ¦ / ¦ a
      ///   ¦ / ¦ ∅
      ∅     ¦ / ¦ ∅
      ␊␠a ␉ ¦ ␠␉␊ ¦ a
      )"))
    EXPECT_EQ(Text::trim(row[0], row[1]), row[2]) << row[0];
}

TEST(TextParts, AreWhatStandsBetweenSeparators) {
  for (const auto& row : rows(R"(
      a,b     ¦ ,  ¦ (a)(b)
      a,,b,   ¦ ,  ¦ (a)()(b)
      ,       ¦ ,  ¦ ()
      ∅       ¦ ,  ¦ ∅
      a, b␉c, ¦ ,␠␉ ¦ (a)()(b)(c)
      )")) {
    std::string parts;
    for (std::string_view rest = row[0]; !rest.empty();)
      parts.append("(").append(Text::takePart(rest, row[1])).append(")");
    EXPECT_EQ(parts, row[2]) << row[0];
  }
}

TEST(TextCase, MapsBeyondAscii) {
  EXPECT_EQ(Text::lowercased("ABC [xyz] @Z"), "abc [xyz] @z");
  EXPECT_EQ(Text::lowercased("ÄÖÜ"), "äöü");
  EXPECT_EQ(Text::lowercased("İ"), "i\u0307") << "full mapping, longer than the text";
  EXPECT_EQ(Text::folded("Straße"), "strasse");
}

TEST(TextContains, ComparesFoldedTexts) {
  struct Row {
    const char* sentence;
    std::string text, part;
    bool expected;
  };
  const std::vector<Row> rows = {
      {"the same letters in other case", "https://Evil.Example/x", "EVIL.example", true},
      {"another text", "https://good.example/x", "evil.example", false},
      {"an empty part", "abc", "", false},
      {"an empty part in an empty text", "", "", false},
      {"the whole text", "abc", "ABC", true},
      {"a part longer than the text", "abc", "abcd", false},
      {"a sharp s for two", "https://STRASSE.example", "straße", true},
      {"the Kelvin sign for k in a plain text", "https://kelvin.example", "\u212Aelvin", true},
      {"k for the Kelvin sign in the text", "https://\u212Aelvin.example", "KELVIN", true},
      {"no folding of accents", "cafe", "café", false},
  };
  for (const Row& row : rows)
    EXPECT_EQ(Text::contains(Text::folded(row.text), Text::folded(row.part)), row.expected) << row.sentence;
}

}  // namespace
