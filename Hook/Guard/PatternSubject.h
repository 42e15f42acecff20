// A regular expression of the guard, and the search for it in one text. Preparing the first expression costs
// more than all else that a tool call's check does, so each built-in expression carries parts that every
// match must contain, and a text without them is never searched.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Regex.h"

struct GuardPattern {
  std::string_view expression;
  // Stand in every match, in lower case, a blank for any ASCII white space; empty ones say nothing.
  std::array<std::string_view, 3> parts = {};
};

// The text of one tool call under all the patterns that it is tried against, without regard to case. `text`
// and `budget` outlive it.
class PatternSubject {
 public:
  PatternSubject(std::string_view text, TimeBudget& budget);

  // A search that cannot be finished counts as a match for the one, and as none for the other.
  bool matches(const GuardPattern& pattern) { return search(pattern).value_or(true); }
  bool surelyMatches(const GuardPattern& pattern) { return search(pattern).value_or(false); }

 private:
  std::optional<bool> search(const GuardPattern& pattern);

  std::string_view text_;
  TimeBudget& budget_;
  // The text as `parts` are written; absent for a text beyond ASCII, where other letters may fold to those of
  // a part.
  std::optional<std::string> plain_;
  std::optional<RegexSubject> subject_;
};
