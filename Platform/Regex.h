// Regular expressions in ICU syntax, compiled with the case option and no other, searched unanchored.
//
// Patterns and subjects may be hostile. A search that outlives its budget, or that exhausts the matcher's own
// stack, has no answer. An invalid pattern matches nothing.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/TimeBudget.h"

// A text in the form that searches work on, converted once for any number of patterns.
class RegexSubject {
 public:
  explicit RegexSubject(std::string_view utf8);
  const std::u16string& utf16() const { return utf16_; }

 private:
  std::u16string utf16_;
};

namespace Regex {

enum class Case { ignored, significant };

// Whether a match of `pattern` stands anywhere in `subject`; absent when that cannot be told within `budget`.
// False when `pattern` is not a valid ICU expression (the empty one is not).
std::optional<bool> search(std::string_view pattern, Case letterCase, const RegexSubject& subject,
                           TimeBudget& budget);

}  // namespace Regex
