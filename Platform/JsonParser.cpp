#include <simdjson.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <memory>

#include "Platform/Json.h"

namespace {

using Selection = std::span<const Json::Selection>;  // empty: everything

constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

void appendUtf8(std::string& out, std::uint32_t codePoint) {
  if (codePoint < 0x80) {
    out += static_cast<char>(codePoint);
  } else if (codePoint < 0x800) {
    out += static_cast<char>(0xC0 | codePoint >> 6);
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    out += static_cast<char>(0xE0 | codePoint >> 12);
    out += static_cast<char>(0x80 | (codePoint >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | codePoint >> 18);
    out += static_cast<char>(0x80 | (codePoint >> 12 & 0x3F));
    out += static_cast<char>(0x80 | (codePoint >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  }
}

// The code unit of the "\uXXXX" escape that `text` begins with; absent when it begins with none.
std::optional<std::uint32_t> codeUnit(std::string_view text) {
  std::uint32_t unit = 0;
  if (text.size() < 6 || !text.starts_with("\\u")) return std::nullopt;
  auto [end, error] = std::from_chars(text.data() + 2, text.data() + 6, unit, 16);
  if (error != std::errc() || end != text.data() + 6) return std::nullopt;
  return unit;
}

// What each letter behind a backslash stands for; "\0" where it is no such letter.
constexpr auto escapeValues = [] {
  std::array<char, 256> values{};
  constexpr std::string_view letters = "\"\\/bfnrt", meanings = "\"\\/\b\f\n\r\t";
  for (std::size_t i = 0; i < letters.size(); ++i)
    values[static_cast<unsigned char>(letters[i])] = meanings[i];
  return values;
}();

char escapeValue(char letter) {
  return escapeValues[static_cast<unsigned char>(letter)];
}

// Whether every backslash in `text` begins a well-formed escape.
bool hasValidEscapes(std::string_view text) {
  for (auto at = text.find('\\'); at != text.npos; at = text.find('\\', at)) {
    if (at + 1 < text.size() && escapeValue(text[at + 1]))
      at += 2;
    else if (codeUnit(text.substr(at)))
      at += 6;
    else
      return false;
  }
  return true;
}

// Appends what the "\uXXXX" escape (or surrogate pair of two) that `text` begins with stands for, and drops
// it from `text`; a surrogate on its own stands for U+FFFD.
void takeUnicodeEscape(std::string_view& text, std::string& out) {
  std::uint32_t unit = codeUnit(text).value_or(0);
  text.remove_prefix(6);
  if (unit < 0xD800 || unit > 0xDFFF) return appendUtf8(out, unit);
  auto low = unit < 0xDC00 ? codeUnit(text) : std::nullopt;
  if (!low || *low < 0xDC00 || *low > 0xDFFF) {
    out += replacementCharacter;
    return;
  }
  text.remove_prefix(6);
  appendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (*low - 0xDC00));
}

// The text that the content of a string with valid escapes stands for.
std::string unescaped(std::string_view content) {
  std::size_t at = content.find('\\');
  if (at == content.npos) return std::string(content);
  std::string out;
  out.reserve(content.size());
  for (; at != content.npos; at = content.find('\\')) {
    out += content.substr(0, at);
    content.remove_prefix(at);
    if (char value = escapeValue(content[1])) {
      out += value;
      content.remove_prefix(2);
    } else {
      takeUnicodeEscape(content, out);
    }
  }
  out += content;
  return out;
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

struct NumberForm {
  bool valid = false;
  bool integral = true;
};

// How a token is written, by the grammar of RFC 8259.
NumberForm numberForm(std::string_view token) {
  const char *at = token.data(), *const end = at + token.size();
  auto digits = [&] {
    const char* first = at;
    while (at != end && isDigit(*at))
      ++at;
    return at - first;
  };
  NumberForm form;
  if (at != end && *at == '-') ++at;
  const char* first = at;
  auto length = digits();
  if (length == 0 || (length > 1 && *first == '0')) return form;
  if (at != end && *at == '.') {
    form.integral = false;
    ++at;
    if (digits() == 0) return form;
  }
  if (at != end && (*at == 'e' || *at == 'E')) {
    form.integral = false;
    ++at;
    if (at != end && (*at == '+' || *at == '-')) ++at;
    if (digits() == 0) return form;
  }
  form.valid = at == end;
  return form;
}

std::optional<Json> number(std::string_view token) {
  NumberForm form = numberForm(token);
  if (!form.valid) return std::nullopt;
  const char *first = token.data(), *const end = first + token.size();
  std::int64_t integer = 0;
  if (form.integral && std::from_chars(first, end, integer).ec == std::errc()) return Json(integer);
  double value = 0;
  if (std::from_chars(first, end, value).ec == std::errc::result_out_of_range) {
    constexpr double most = std::numeric_limits<double>::max();
    value = std::clamp(std::strtod(std::string(token).c_str(), nullptr), -most, most);
  }
  return Json(value);
}

std::optional<Json> literalOrNumber(std::string_view token) {
  if (token == "null") return Json(nullptr);
  if (token == "true") return Json(true);
  if (token == "false") return Json(false);
  return number(token);
}

bool isLiteralOrNumber(std::string_view token) {
  return token == "null" || token == "true" || token == "false" || numberForm(token).valid;
}

// Walks one text along the positions of its structural characters and scalars, which simdjson finds (it has
// then also checked the UTF-8, the quotes and the control characters in strings), building what is selected
// and checking the rest.
class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {
    // A backslash outside a string is refused with the token that it stands in.
    if (!hasValidEscapes(text)) return;
    // Positions are 32 bits wide.
    if (text.size() > std::numeric_limits<std::uint32_t>::max() - 64) return;
    const simdjson::implementation* implementation = simdjson::get_active_implementation();
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    if (implementation->create_dom_parser_implementation(text.size(), 1, index_) == simdjson::SUCCESS &&
        index_->stage1(bytes, text.size(), simdjson::stage1_mode::regular) == simdjson::SUCCESS) {
      next_ = index_->structural_indexes.get();
      end_ = next_ + index_->n_structural_indexes;
    }
  }

  std::optional<Json> build(Selection selection) {
    auto root = value(0, selection);
    return root && next_ == end_ ? std::move(root) : std::nullopt;
  }

 private:
  char peek() const { return next_ != end_ ? text_[*next_] : '\0'; }

  bool take(char expected) {
    if (peek() != expected) return false;
    ++next_;
    return true;
  }

  // The next scalar or string, up to what follows it, without white space at its end.
  std::string_view takeToken() {
    if (next_ == end_) return {};
    std::size_t first = *next_++;
    std::size_t last = next_ != end_ ? *next_ : text_.size();
    while (last > first && isSpace(text_[last - 1]))
      --last;
    return text_.substr(first, last - first);
  }

  // What stands between the quotes of the string that comes next. Its end needs no search: whatever follows
  // a closing quote is white space or has a position of its own.
  std::string_view takeContent() {
    auto token = takeToken();
    return token.substr(1, token.size() - 2);
  }

  std::optional<Json> value(int depth, Selection selection) {
    switch (peek()) {
      case '[':
        return depth < Json::maxDepth ? array(depth + 1, selection) : std::nullopt;
      case '{':
        return depth < Json::maxDepth ? object(depth + 1, selection) : std::nullopt;
      case '"':
        return Json(unescaped(takeContent()));
      default:
        return literalOrNumber(takeToken());
    }
  }

  std::optional<Json> array(int depth, Selection selection) {
    Json::Array elements;
    take('[');
    if (take(']')) return Json(std::move(elements));
    do {
      auto element = value(depth, selection);
      if (!element) return std::nullopt;
      elements.push_back(std::move(*element));
    } while (take(','));
    return take(']') ? std::optional<Json>(std::move(elements)) : std::nullopt;
  }

  std::optional<Json> object(int depth, Selection selection) {
    std::vector<Json::Member> members;
    take('{');
    if (take('}')) return Json(Json::Object());
    members.reserve(selection.empty() ? 8 : selection.size());
    do {
      if (peek() != '"' || !member(depth, selection, members)) return std::nullopt;
    } while (take(','));
    return take('}') ? std::optional<Json>(Json::Object(std::move(members))) : std::nullopt;
  }

  // Takes one member, and appends it to `members` when it is selected.
  bool member(int depth, Selection selection, std::vector<Json::Member>& members) {
    std::string_view key = takeContent();
    std::string spelled;
    if (key.find('\\') != key.npos) key = spelled = unescaped(key);
    if (!take(':')) return false;
    auto chosen = std::ranges::find(selection, key, &Json::Selection::key);
    if (!selection.empty() && chosen == selection.end()) return skip(depth);
    auto built = value(depth, selection.empty() ? selection : chosen->within);
    if (!built) return false;
    members.push_back({std::string(key), std::move(*built)});
    return true;
  }

  // Takes one value as `value` does, but builds nothing.
  bool skip(int depth) {
    switch (peek()) {
      case '[':
        return depth < Json::maxDepth && skipArray(depth + 1);
      case '{':
        return depth < Json::maxDepth && skipObject(depth + 1);
      case '"':
        return take('"');
      default:
        return isLiteralOrNumber(takeToken());
    }
  }

  bool skipArray(int depth) {
    take('[');
    if (take(']')) return true;
    do {
      if (!skip(depth)) return false;
    } while (take(','));
    return take(']');
  }

  bool skipObject(int depth) {
    take('{');
    if (take('}')) return true;
    do {
      if (!take('"') || !take(':') || !skip(depth)) return false;
    } while (take(','));
    return take('}');
  }

  std::string_view text_;
  std::unique_ptr<simdjson::internal::dom_parser_implementation> index_;
  const std::uint32_t* next_ = nullptr;
  const std::uint32_t* end_ = nullptr;
};

}  // namespace

std::optional<Json> Json::parse(std::string_view text) {
  return Parser(text).build({});
}

std::optional<Json::Object> Json::parseObject(std::string_view text, std::span<const Selection> selection) {
  auto json = Parser(text).build(selection);
  auto* object = json ? std::get_if<Object>(&json->value_) : nullptr;
  return object ? std::optional<Object>(std::move(*object)) : std::nullopt;
}
