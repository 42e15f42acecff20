#include "Platform/Json.h"

#include <simdjson.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <memory>

namespace {

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

// The code unit of four hexadecimal digits; absent when they are not all there.
std::optional<std::uint32_t> codeUnit(std::string_view digits) {
  std::uint32_t unit = 0;
  if (digits.size() < 4) return std::nullopt;
  auto [end, error] = std::from_chars(digits.data(), digits.data() + 4, unit, 16);
  if (error != std::errc() || end != digits.data() + 4) return std::nullopt;
  return unit;
}

// Appends the code point of the "\uXXXX" escape (or surrogate pair of two) that `text` begins with, and drops
// it from `text`; a surrogate on its own becomes U+FFFD. False when the escape is malformed.
bool appendUnicodeEscape(std::string_view& text, std::string& out) {
  auto unit = codeUnit(text.substr(2));
  if (!unit) return false;
  text.remove_prefix(6);
  if (*unit < 0xD800 || *unit > 0xDFFF) {
    appendUtf8(out, *unit);
    return true;
  }
  auto low = *unit < 0xDC00 && text.starts_with("\\u") ? codeUnit(text.substr(2)) : std::nullopt;
  if (!low || *low < 0xDC00 || *low > 0xDFFF) {
    out += replacementCharacter;
    return true;
  }
  text.remove_prefix(6);
  appendUtf8(out, 0x10000 + ((*unit - 0xD800) << 10) + (*low - 0xDC00));
  return true;
}

constexpr std::string_view escapeLetters = "\"\\/bfnrt", escapeValues = "\"\\/\b\f\n\r\t";

// The value of a string token, quotes included; absent when an escape is malformed or something follows it.
std::optional<std::string> string(std::string_view token) {
  token.remove_prefix(1);
  std::string out;
  for (;;) {
    std::size_t special = token.find_first_of("\"\\");
    if (special == token.npos) return std::nullopt;
    out += token.substr(0, special);
    token.remove_prefix(special);
    if (token[0] == '"') return token.size() == 1 ? std::optional(std::move(out)) : std::nullopt;
    if (token.starts_with("\\u")) {
      if (!appendUnicodeEscape(token, out)) return std::nullopt;
      continue;
    }
    std::size_t which = token.size() > 1 ? escapeLetters.find(token[1]) : escapeLetters.npos;
    if (which == escapeLetters.npos) return std::nullopt;
    out += escapeValues[which];
    token.remove_prefix(2);
  }
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// A number token by the grammar of RFC 8259; absent when it is malformed.
std::optional<Json> number(std::string_view token) {
  const char *at = token.data(), *const end = at + token.size();
  auto digits = [&] {
    const char* first = at;
    while (at != end && isDigit(*at))
      ++at;
    return at - first;
  };
  if (at != end && *at == '-') ++at;
  const char* first = at;
  auto length = digits();
  if (length == 0 || (length > 1 && *first == '0')) return std::nullopt;
  bool integral = true;
  if (at != end && *at == '.') {
    integral = false;
    ++at;
    if (digits() == 0) return std::nullopt;
  }
  bool negativeExponent = false;
  if (at != end && (*at == 'e' || *at == 'E')) {
    integral = false;
    ++at;
    if (at != end && (*at == '+' || *at == '-')) negativeExponent = *at++ == '-';
    if (digits() == 0) return std::nullopt;
  }
  if (at != end) return std::nullopt;

  std::int64_t integer = 0;
  if (integral && std::from_chars(token.data(), end, integer).ec == std::errc()) return Json(integer);
  double value = 0;
  if (std::from_chars(token.data(), end, value).ec == std::errc::result_out_of_range) {
    // A small mantissa with a huge exponent overflows, "0.000…1" underflows without one.
    bool underflow = negativeExponent || (!integral && *first == '0');
    value = std::copysign(underflow ? 0.0 : std::numeric_limits<double>::max(), token[0] == '-' ? -1.0 : 1.0);
  }
  return Json(value);
}

std::optional<Json> literalOrNumber(std::string_view token) {
  if (token == "null") return Json(nullptr);
  if (token == "true") return Json(true);
  if (token == "false") return Json(false);
  return number(token);
}

// Builds the value of one text from the positions of its structural characters and scalars, which simdjson
// finds (it has then also checked the UTF-8, the quotes and the control characters in strings).
class Builder {
 public:
  explicit Builder(std::string_view text) : text_(text) {
    // Positions are 32 bits wide.
    if (text.size() > std::numeric_limits<std::uint32_t>::max() - 64) return;
    const simdjson::implementation* implementation = simdjson::get_active_implementation();
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    if (implementation->create_dom_parser_implementation(text.size(), 1, index_) == simdjson::SUCCESS &&
        index_->stage1(bytes, text.size(), simdjson::stage1_mode::regular) == simdjson::SUCCESS)
      count_ = index_->n_structural_indexes;
  }

  std::optional<Json> build() {
    auto root = value(0);
    return root && next_ == count_ ? std::move(root) : std::nullopt;
  }

 private:
  char peek() const { return next_ < count_ ? text_[index_->structural_indexes[next_]] : '\0'; }

  bool take(char expected) {
    if (peek() != expected) return false;
    ++next_;
    return true;
  }

  // The next scalar or string, up to what follows it, without white space at its end.
  std::string_view takeToken() {
    if (next_ >= count_) return {};
    std::size_t first = index_->structural_indexes[next_++];
    std::size_t last = next_ < count_ ? index_->structural_indexes[next_] : text_.size();
    auto token = text_.substr(first, last - first);
    return token.substr(0, token.find_last_not_of(" \t\r\n") + 1);
  }

  std::optional<Json> value(int depth) {
    switch (peek()) {
      case '[':
        return depth < Json::maxDepth ? array(depth + 1) : std::nullopt;
      case '{':
        return depth < Json::maxDepth ? object(depth + 1) : std::nullopt;
      case '"':
        return asJson(string(takeToken()));
      default:
        return literalOrNumber(takeToken());
    }
  }

  static std::optional<Json> asJson(std::optional<std::string> text) {
    return text ? std::optional<Json>(std::move(*text)) : std::nullopt;
  }

  std::optional<Json> array(int depth) {
    Json::Array elements;
    take('[');
    if (take(']')) return Json(std::move(elements));
    do {
      auto element = value(depth);
      if (!element) return std::nullopt;
      elements.push_back(std::move(*element));
    } while (take(','));
    return take(']') ? std::optional<Json>(std::move(elements)) : std::nullopt;
  }

  std::optional<Json> object(int depth) {
    std::vector<Json::Member> members;
    take('{');
    if (take('}')) return Json(Json::Object());
    do {
      auto key = peek() == '"' ? string(takeToken()) : std::nullopt;
      if (!key || !take(':')) return std::nullopt;
      auto member = value(depth);
      if (!member) return std::nullopt;
      members.push_back({std::move(*key), std::move(*member)});
    } while (take(','));
    return take('}') ? std::optional<Json>(Json::Object(std::move(members))) : std::nullopt;
  }

  std::string_view text_;
  std::unique_ptr<simdjson::internal::dom_parser_implementation> index_;
  std::size_t count_ = 0;
  std::size_t next_ = 0;
};

}  // namespace

struct JsonWriter {
  std::string out;
  int indent;  // spaces a level; none: compact
  int level = 0;

  void value(const Json& json) {
    json.visit([this](const auto& held) { write(held); });
  }

  void write(std::nullptr_t) { out += "null"; }
  void write(bool flag) { out += flag ? "true" : "false"; }
  void write(std::int64_t integer) { number(integer); }
  void write(double number_) {
    if (std::isfinite(number_))
      number(number_);
    else
      out += "null";
  }
  void write(const std::string& text) { string(text); }
  void write(const Json::Array& array) {
    sequence('[', ']', array, [this](const Json& element) { value(element); });
  }
  void write(const Json::Object& object) {
    sequence('{', '}', object, [this](const Json::Member& member) {
      string(member.key);
      out += indent ? ": " : ":";
      value(member.value);
    });
  }

  template <typename Number>
  void number(Number value_) {
    char digits[32];
    out.append(digits, std::to_chars(digits, digits + sizeof digits, value_).ptr);
  }

  template <typename Sequence, typename Write>
  void sequence(char open, char close, const Sequence& elements, Write&& writeOne) {
    out += open;
    ++level;
    for (bool first = true; const auto& element : elements) {
      if (!first) out += ',';
      first = false;
      breakLine();
      writeOne(element);
    }
    --level;
    if (!elements.empty()) breakLine();
    out += close;
  }

  void breakLine() {
    if (indent) out.append(1, '\n').append(static_cast<std::size_t>(level * indent), ' ');
  }

  void string(std::string_view text) {
    out += '"';
    if (simdjson::validate_utf8(text.data(), text.size()))
      escaped(text);
    else
      escaped(repaired(text));
    out += '"';
  }

  void escaped(std::string_view text) {
    static constexpr char hexadecimal[] = "0123456789abcdef";
    std::size_t written = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
      auto c = static_cast<unsigned char>(text[at]);
      if (c >= 0x20 && c != '"' && c != '\\' && c != '/') continue;
      out += text.substr(written, at - written);
      written = at + 1;
      out += '\\';
      auto which = escapeValues.find(text[at]);
      if (which != escapeValues.npos)
        out += escapeLetters[which];
      else
        out.append("u00").append(1, hexadecimal[c >> 4]).append(1, hexadecimal[c & 15]);
    }
    out += text.substr(written);
  }

  // Every byte that belongs to no valid sequence replaced.
  static std::string repaired(std::string_view text) {
    std::string out;
    while (!text.empty()) {
      auto lead = static_cast<unsigned char>(text[0]);
      std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
      bool valid = length <= text.size() && simdjson::validate_utf8(text.data(), length);
      out += valid ? text.substr(0, length) : replacementCharacter;
      text.remove_prefix(valid ? length : 1);
    }
    return out;
  }
};

Json::Json(const std::vector<std::string>& strings) : value_(Array(strings.begin(), strings.end())) {}

std::optional<Json> Json::parse(std::string_view text) {
  return Builder(text).build();
}

std::optional<Json::Object> Json::parseObject(std::string_view text) {
  auto json = parse(text);
  auto* object = json ? std::get_if<Object>(&json->value_) : nullptr;
  return object ? std::optional<Object>(std::move(*object)) : std::nullopt;
}

std::string Json::compact() const {
  JsonWriter writer{.out = {}, .indent = 0};
  writer.value(*this);
  return std::move(writer.out);
}

std::string Json::pretty() const {
  JsonWriter writer{.out = {}, .indent = 2};
  writer.value(*this);
  return std::move(writer.out);
}

std::optional<double> Json::asNumber() const {
  if (auto* integer = std::get_if<std::int64_t>(&value_)) return static_cast<double>(*integer);
  auto* number = std::get_if<double>(&value_);
  return number ? std::optional(*number) : std::nullopt;
}

std::optional<std::int64_t> Json::asInteger() const {
  if (auto* integer = std::get_if<std::int64_t>(&value_)) return *integer;
  auto* number = std::get_if<double>(&value_);
  // 2^63 is the first double beyond the range; its negative is the least within it.
  if (!number || *number < -0x1p63 || *number >= 0x1p63 || std::trunc(*number) != *number)
    return std::nullopt;
  return static_cast<std::int64_t>(*number);
}

std::optional<std::vector<std::string>> Json::asTexts() const {
  auto* list = asList();
  if (!list) return std::nullopt;
  std::vector<std::string> texts;
  texts.reserve(list->size());
  for (const Json& element : *list) {
    auto* text = element.asText();
    if (!text) return std::nullopt;
    texts.push_back(*text);
  }
  return texts;
}

Json::Object::Object() = default;
Json::Object::Object(const Object&) = default;
Json::Object::Object(Object&&) noexcept = default;
Json::Object& Json::Object::operator=(const Object&) = default;
Json::Object& Json::Object::operator=(Object&&) noexcept = default;
Json::Object::~Object() = default;

Json::Object::Object(std::initializer_list<Member> members) : Object(std::vector<Member>(members)) {}

Json::Object::Object(std::vector<Member> members) : members_(std::move(members)) {
  auto before = [](const Member& a, const Member& b) { return a.key < b.key; };
  if (!std::is_sorted(members_.begin(), members_.end(), before))
    std::stable_sort(members_.begin(), members_.end(), before);
  // Of a row of equal keys the last one is kept.
  auto sameKey = [](const Member& a, const Member& b) { return a.key == b.key; };
  auto kept = std::unique(members_.rbegin(), members_.rend(), sameKey);
  members_.erase(members_.begin(), kept.base());
}

bool Json::Object::empty() const {
  return members_.empty();
}

std::size_t Json::Object::size() const {
  return members_.size();
}

std::vector<Json::Member>::const_iterator Json::Object::begin() const {
  return members_.begin();
}

std::vector<Json::Member>::const_iterator Json::Object::end() const {
  return members_.end();
}

namespace {

// Where the member of that key stands or would stand.
template <typename Members>
auto position(Members& members, std::string_view key) {
  return std::lower_bound(
      members.begin(), members.end(), key,
      [](const Json::Member& member, std::string_view wanted) { return member.key.compare(wanted) < 0; });
}

}  // namespace

const Json* Json::Object::find(std::string_view key) const {
  auto at = position(members_, key);
  return at != members_.end() && at->key == key ? &at->value : nullptr;
}

void Json::Object::set(std::string_view key, Json value) {
  auto at = position(members_, key);
  if (at != members_.end() && at->key == key)
    at->value = std::move(value);
  else
    members_.insert(at, {std::string(key), std::move(value)});
}

std::optional<Json> Json::Object::take(std::string_view key) {
  auto at = position(members_, key);
  if (at == members_.end() || at->key != key) return std::nullopt;
  Json value = std::move(at->value);
  members_.erase(at);
  return value;
}

const std::string& Json::Object::text(std::string_view key) const {
  static const std::string none;
  const Json* value = find(key);
  return value && value->asText() ? *value->asText() : none;
}

std::int64_t Json::Object::integer(std::string_view key) const {
  const Json* value = find(key);
  return value ? value->asInteger().value_or(0) : 0;
}

bool Json::Object::flag(std::string_view key) const {
  const Json* value = find(key);
  return value && value->asFlag() && *value->asFlag();
}

const Json::Object& Json::Object::object(std::string_view key) const {
  static const Object none;
  const Json* value = find(key);
  return value && value->asObject() ? *value->asObject() : none;
}

const Json::Array& Json::Object::list(std::string_view key) const {
  static const Array none;
  const Json* value = find(key);
  return value && value->asList() ? *value->asList() : none;
}

std::optional<std::string> Json::Object::optionalText(std::string_view key) const {
  const Json* value = find(key);
  return value && value->asText() ? std::optional(*value->asText()) : std::nullopt;
}

bool Json::Object::operator==(const Object& other) const {
  return members_ == other.members_;
}
