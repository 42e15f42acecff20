// Regular expressions in ICU syntax, compiled with the case option and no other, searched unanchored.
//
// Patterns and subjects may be hostile, so every search runs against a budget: a search that outlives it, or
// that exhausts the matcher's own stack, counts as a match, for what cannot be checked in time is objected
// to. An invalid pattern is absent.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// The time that all searches sharing this budget may take together. It starts with the first search.
class RegexBudget {
 public:
  explicit RegexBudget(std::chrono::milliseconds total = std::chrono::milliseconds(1500)) : total_(total) {}
  bool spent();  // starts the clock when called first

 private:
  std::chrono::milliseconds total_;
  std::optional<std::chrono::steady_clock::time_point> end_;
};

// A text in the form that searches work on, converted once for any number of patterns.
class RegexSubject {
 public:
  explicit RegexSubject(std::string_view utf8);
  const std::u16string& utf16() const { return utf16_; }

 private:
  std::u16string utf16_;
};

class Regex {
 public:
  enum class Case { ignored, significant };

  // Absent when `pattern` is not a valid ICU expression.
  static std::optional<Regex> compile(std::string_view pattern, Case letterCase = Case::ignored);

  // Whether a match stands anywhere in `subject`; true also when `budget` runs out first.
  bool matches(const RegexSubject& subject, RegexBudget& budget) const;

 private:
  struct Compiled;
  struct Close {
    void operator()(Compiled* compiled) const;
  };
  explicit Regex(Compiled* compiled) : compiled_(compiled) {}

  std::unique_ptr<Compiled, Close> compiled_;
};
