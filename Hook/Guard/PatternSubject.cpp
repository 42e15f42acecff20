#include "Hook/Guard/PatternSubject.h"

#include <algorithm>

#include "Platform/Text.h"

PatternSubject::PatternSubject(std::string_view text, TimeBudget& budget) : text_(text), budget_(budget) {
  if (!Text::isAscii(text)) return;
  plain_ = Text::lowercased(text);
  std::ranges::replace_if(
      *plain_, [](char c) { return '\t' <= c && c <= '\r'; }, ' ');
}

std::optional<bool> PatternSubject::search(const GuardPattern& pattern) {
  const auto isMissing = [&](std::string_view part) {
    return !part.empty() && !Text::contains(*plain_, part);
  };
  if (plain_ && std::ranges::any_of(pattern.parts, isMissing)) return false;
  if (!subject_) subject_.emplace(text_);
  return Regex::search(pattern.expression, Regex::Case::ignored, *subject_, budget_);
}
