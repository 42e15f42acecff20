#include <simdjson.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <memory>

#include "Platform/Json.h"
#include "Platform/JsonEscapes.h"

namespace {

constexpr Json::Selection everything;

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

bool number(Json& out, std::string_view token) {
  const NumberForm form = numberForm(token);
  const char *first = token.data(), *const end = first + token.size();
  std::int64_t integer = 0;
  double value = 0;
  if (form.integral && std::from_chars(first, end, integer).ec == std::errc()) {
    out = integer;
  } else {
    if (std::from_chars(first, end, value).ec == std::errc::result_out_of_range) {
      constexpr double most = std::numeric_limits<double>::max();
      value = std::clamp(std::strtod(std::string(token).c_str(), nullptr), -most, most);
    }
    out = value;
  }
  return form.valid;
}

bool literalOrNumber(Json& out, std::string_view token) {
  if (token == "null") return true;
  if (token != "true" && token != "false") return number(out, token);
  out = token == "true";
  return true;
}

bool isLiteralOrNumber(std::string_view token) {
  return token == "null" || token == "true" || token == "false" || numberForm(token).valid;
}

using Index = simdjson::internal::dom_parser_implementation;

// The index that the thread's texts are found out with one after the other: fresh memory for each would cost
// as much as finding what to put there. Null when there is no room for a text of that size.
const std::unique_ptr<Index>& indexFor(std::size_t size) {
  thread_local std::unique_ptr<Index> index;
  if (index && index->capacity() >= size) return index;
  const std::size_t capacity = std::max<std::size_t>(size, 64 * 1024);
  if (simdjson::get_active_implementation()->create_dom_parser_implementation(capacity, 1, index) !=
      simdjson::SUCCESS)
    index = nullptr;
  return index;
}

// Walks one text along the positions of its structural characters and scalars, which simdjson finds (it has
// then also checked the UTF-8, the quotes and the control characters in strings), building what is selected
// and checking the rest.
class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {
    // A backslash outside a string is refused with the token that it stands in.
    if (!JsonEscapes::areValid(text)) return;
    // Positions are 32 bits wide.
    if (text.size() > std::numeric_limits<std::uint32_t>::max() - 64) return;
    const auto& index = indexFor(text.size());
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    if (index && index->stage1(bytes, text.size(), simdjson::stage1_mode::regular) == simdjson::SUCCESS) {
      next_ = index->structural_indexes.get();
      end_ = next_ + index->n_structural_indexes;
    }
  }

  std::optional<Json> build(const Json::Selection& selected) {
    Json root;
    return value(root, 0, selected) && next_ == end_ ? std::optional(std::move(root)) : std::nullopt;
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

  // Takes one value into `out`, which is null before. False when it is malformed.
  bool value(Json& out, int depth, const Json::Selection& selected) {
    switch (peek()) {
      case '[':
        return depth < Json::maxDepth && array(out, depth + 1, selected);
      case '{':
        return depth < Json::maxDepth && object(out, depth + 1, selected);
      case '"':
        out = JsonEscapes::resolved(JsonEscapes::beginning(takeContent(), selected.enough));
        return true;
      default:
        return literalOrNumber(out, takeToken());
    }
  }

  bool array(Json& out, int depth, const Json::Selection& selected) {
    Json::Array elements;
    take('[');
    if (!take(']')) {
      do {
        if (!value(elements.emplace_back(), depth, selected)) return false;
      } while (take(','));
      if (!take(']')) return false;
    }
    out = std::move(elements);
    return true;
  }

  bool object(Json& out, int depth, const Json::Selection& selected) {
    std::vector<Json::Member> members;
    take('{');
    if (!take('}')) {
      members.reserve(selected.within.empty() ? 8 : selected.within.size());
      do {
        if (peek() != '"' || !member(members, depth, selected)) return false;
      } while (take(','));
      if (!take('}')) return false;
    }
    out = Json::Object(std::move(members));
    return true;
  }

  // Takes one member, and appends it to `members` when it is selected.
  bool member(std::vector<Json::Member>& members, int depth, const Json::Selection& selected) {
    std::string_view key = takeContent();
    std::string spelled;
    if (key.find('\\') != key.npos) key = spelled = JsonEscapes::resolved(key);
    if (!take(':')) return false;
    const Json::Selection* chosen = &everything;
    if (!selected.within.empty()) {
      auto found = std::ranges::find(selected.within, key, &Json::Selection::key);
      if (found == selected.within.end()) return skip(depth);
      chosen = &*found;
    }
    members.push_back({std::string(key), nullptr});
    return value(members.back().value, depth, *chosen);
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
  const std::uint32_t* next_ = nullptr;
  const std::uint32_t* end_ = nullptr;
};

}  // namespace

std::optional<Json> Json::parse(std::string_view text) {
  return Parser(text).build(everything);
}

std::optional<Json::Object> Json::parseObject(std::string_view text, std::span<const Selection> selection) {
  auto json = Parser(text).build({.key = {}, .within = selection});
  auto* object = json ? std::get_if<Object>(&json->value_) : nullptr;
  return object ? std::optional<Object>(std::move(*object)) : std::nullopt;
}
