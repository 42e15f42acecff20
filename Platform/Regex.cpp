#include "Platform/Regex.h"

#include <unicode/uregex.h>
#include <unicode/ustring.h>

#include <cstdint>
#include <memory>

#include "Platform/Text.h"

namespace {

struct Close {
  void operator()(URegularExpression* expression) const { uregex_close(expression); }
};
using Expression = std::unique_ptr<URegularExpression, Close>;

std::u16string utf16Of(std::string_view utf8) {
  if (Text::isAscii(utf8)) return std::u16string(utf8.begin(), utf8.end());
  std::u16string text(utf8.size(), u'\0');  // no text has more code units than bytes
  const auto size = static_cast<std::int32_t>(utf8.size());
  std::int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8WithSub(text.data(), size, &length, utf8.data(), size, 0xFFFD, nullptr, &status);
  text.resize(static_cast<std::size_t>(length));
  return text;
}

// Null when `pattern` is not valid.
Expression compile(std::u16string_view pattern, Regex::Case letterCase) {
  UErrorCode status = U_ZERO_ERROR;
  const std::uint32_t flags = letterCase == Regex::Case::ignored ? UREGEX_CASE_INSENSITIVE : 0;
  return Expression(
      uregex_open(pattern.data(), static_cast<std::int32_t>(pattern.size()), flags, nullptr, &status));
}

// The two functions that the matcher calls every so often. They answer whether it shall go on.
UBool goOnMatching(const void* budget, std::int32_t) {
  return static_cast<TimeBudget*>(const_cast<void*>(budget))->spent() ? 0 : 1;
}
UBool goOnFinding(const void* budget, std::int64_t) {
  return goOnMatching(budget, 0);
}

std::optional<bool> find(std::u16string_view pattern, Regex::Case letterCase, const std::u16string& subject,
                         TimeBudget& budget) {
  const Expression expression = compile(pattern, letterCase);
  if (!expression) return false;
  UErrorCode status = U_ZERO_ERROR;
  uregex_setMatchCallback(expression.get(), goOnMatching, &budget, &status);
  uregex_setFindProgressCallback(expression.get(), goOnFinding, &budget, &status);
  uregex_setText(expression.get(), subject.data(), static_cast<std::int32_t>(subject.size()), &status);
  const bool found = uregex_find(expression.get(), 0, &status);
  return U_SUCCESS(status) ? std::optional(found) : std::nullopt;
}

// Whether compiling `pattern` and the stretches of a search between two calls of the functions above are sure
// to be short. The slowest pattern measured takes 0.8 ms for each of its characters to compile, and the
// matcher calls back after 10,000 steps, each of which may read all of the subject for every few characters
// of the pattern.
bool isQuick(std::u16string_view pattern, std::u16string_view subject) {
  constexpr std::size_t quickToCompile = 400;
  constexpr std::size_t quickToStep = 200'000;
  return pattern.size() <= quickToCompile && pattern.size() * subject.size() <= quickToStep;
}

}  // namespace

RegexSubject::RegexSubject(std::string_view utf8) : utf16_(utf16Of(utf8)) {}

std::optional<bool> Regex::search(std::string_view pattern, Case letterCase, const RegexSubject& subject,
                                  TimeBudget& budget) {
  if (budget.spent()) return std::nullopt;
  const std::u16string text = utf16Of(pattern);
  const auto answer = [&] { return find(text, letterCase, subject.utf16(), budget); };
  if (isQuick(text, subject.utf16())) return answer();
  compile(u"a", letterCase);  // what the library prepares once is prepared here, not by every child anew
  return budget.ask(answer);
}
