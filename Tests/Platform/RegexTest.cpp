#include "Platform/Regex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "Tests/Support/Repeated.h"

namespace {

using namespace std::chrono_literals;
using Regex::Case;

std::optional<bool> search(std::string_view pattern, std::string_view text, Case letterCase = Case::ignored) {
  TimeBudget budget;
  return Regex::search(pattern, letterCase, RegexSubject(text), budget);
}

TEST(Regex, MeansWhatIcuMeans) {
  struct Row {
    const char* sentence;
    std::string pattern, text;
    bool expected;
  };
  const std::vector<Row> rows = {
      {"a match stands anywhere", "b+", "abbc", true},
      {"case is ignored", "Drop", "dROP", true},
      {"case is ignored beyond ASCII", "ä", "Ä", true},
      {"k folds with the Kelvin sign", "kill", "\u212Aill", true},
      {"a sharp s folds to two", "straße", "STRASSE", true},
      {"white space has the vertical tab", R"(a\sb)", "a\vb", true},
      {"white space has the no-break space", R"(a\sb)", "a\u00A0b", true},
      {"white space has the next-line control", R"(a\sb)", "a\u0085b", true},
      {"white space has the ideographic space", R"(a\sb)", "a\u3000b", true},
      {"white space has no zero-width space", R"(a\sb)", "a\u200Bb", false},
      {"a word ends before a hyphen", R"(halt\b)", "halt-now", true},
      {"a word does not end before an underscore", R"(halt\b)", "halt_now", false},
      {"a word does not end before an accent", R"(halt\b)", "halt\u0301", false},
      {"a word does not end before a letter beyond ASCII", R"(halt\b)", "haltä", false},
      {"word characters go beyond ASCII", R"(^\w+$)", "größe", true},
      {"digits go beyond ASCII", R"(^\d$)", "\u0663", true},
      {"the end is also before a final line feed", "a$", "a\n", true},
      {"the end is also before a final carriage return and line feed", "a$", "a\r\n", true},
      {"the end is also before a final line separator", "a$", "a\u2028", true},
      {"the end is not before two line feeds", "a$", "a\n\n", false},
      {"the end is not at the end of a line", "a$", "a\nb", false},
      {"the start is not at the start of a line", "^b", "a\nb", false},
      {"a dot passes no line feed", "a.b", "a\nb", false},
      {"a dot passes no carriage return", "a.b", "a\rb", false},
      {"a dot passes no paragraph separator", "a.b", "a\u2029b", false},
      {"a dot passes no next-line control", "a.b", "a\u0085b", false},
      {"a dot passes one code point beyond the basic plane", "^.$", "🚀", true},
      {"sets may be intersected", "^[[a-z]&&[^aeiou]]+$", "xyz", true},
      {"sets may be subtracted", "^[[a-z]--[aeiou]]+$", "xaz", false},
      {"properties are known", R"(^\p{Greek}+$)", "αβγ", true},
      {"possessive quantifiers give nothing back", "a*+a", "aaa", false},
      {"look-behind is known", "(?<=sudo )rm", "sudo rm", true},
      {"a flag may be switched off inside", "(?-i)DROP", "drop", false},
      {"a text of nothing can match", "^$", "", true},
      {"a zero byte is a character", R"(a\x00b)", std::string("a\0b", 3), true},
      {"an unclosed group is invalid", "(", "(", false},
      {"an unclosed set is invalid", "[a", "a", false},
      {"the empty pattern is invalid", "", "a", false},
      {"an unbounded look-behind is invalid", "(?<=a*)b", "aab", false},
      {"an ill-formed byte is a replacement character", "\uFFFD", "a\xFF", true},
  };
  for (const Row& row : rows)
    EXPECT_EQ(search(row.pattern, row.text), row.expected) << row.sentence;
}

TEST(Regex, MindsCaseWhenAsked) {
  EXPECT_EQ(search("readme", "README", Case::significant), false);
  EXPECT_EQ(search("README", "README", Case::significant), true);
}

TEST(Regex, GivesNoAnswerWhereNoneComesInTime) {
  struct Row {
    const char* sentence;
    std::string pattern, text;
  };
  const std::string longLine(1'000'000, 'a');
  const std::vector<Row> rows = {
      {"a search of exponential time", "(a+)+$", repeated("a", 40) + "!"},
      {"a search of square time", R"(curl\s+[^|]*\|\s*(ba)?sh)", repeated("curl ", 200'000)},
      {"a search of square time that begins anew inside", R"(git\s+push\s+.*?(--force|-f)\b)",
       repeated("git push ", 110'000)},
      {"a search that exhausts the matcher's stack", "(a|b)*c", longLine},
      {"a search whose single steps are slow", "(?:(?=[^|]*)a)*b", longLine},
      {"a search with slow back references", R"((a*)(?:)" + repeated(R"((?=\1))", 60) + "a?)*b",
       longLine.substr(0, 30'000)},
      {"a pattern that takes long to compile", repeated(R"([\W])", 20'000), "a"},
      {"a pattern of quantifiers that takes long to compile", repeated("(a)*", 100'000) + "!", "a"},
  };
  for (const Row& row : rows) {
    TimeBudget budget(100ms);
    const auto start = std::chrono::steady_clock::now();
    const RegexSubject subject(row.text);
    EXPECT_EQ(Regex::search(row.pattern, Case::ignored, subject, budget), std::nullopt) << row.sentence;
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s) << row.sentence;
  }
}

TEST(Regex, AnswersForLongTextsWhatItAnswersForShortOnes) {
  const std::string padding = repeated("echo hello\n", 100'000);
  EXPECT_EQ(search(R"(\bmkfs\b)", padding), false);
  EXPECT_EQ(search(R"(\bmkfs\b)", padding + "mkfs /dev/sda"), true);
  EXPECT_EQ(search("(", padding), false);
}

TEST(Regex, TriesNothingMoreOnceTheBudgetIsSpent) {
  TimeBudget budget(0ms);
  EXPECT_EQ(Regex::search("a", Case::ignored, RegexSubject("b"), budget), std::nullopt);
}

}  // namespace
