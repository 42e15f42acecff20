#include "Platform/Json/Json.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "Platform/Json/JsonReader.h"
#include "Platform/Json/JsonString.h"

namespace {

// An integer where 64 bits hold it. The nearest double is always written out: with an exponent too large for
// it comes the largest.
Json number(std::string_view spelling) {
  const char *first = spelling.data(), *const end = first + spelling.size();
  std::int64_t integer = 0;
  if (std::from_chars(first, end, integer) == std::from_chars_result{end, std::errc()}) return integer;
  constexpr double most = std::numeric_limits<double>::max();
  return std::clamp(std::strtod(std::string(spelling).c_str(), nullptr), -most, most);
}

}  // namespace

struct JsonWriter {
  std::string out;
  std::size_t indent;  // spaces a level; none: compact
  std::size_t level = 0;

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
    if (indent) out.append(1, '\n').append(level * indent, ' ');
  }

  void string(std::string_view text) {
    out += '"';
    JsonString::append(out, text);
    out += '"';
  }
};

Json::Json(const std::vector<std::string>& strings) : value_(Array(strings.begin(), strings.end())) {}

std::optional<Json> Json::parse(std::string_view text) {
  JsonReader reader;
  const JsonView root = reader.read(text);
  return root ? std::optional(of(root)) : std::nullopt;
}

Json Json::of(JsonView view) {
  if (view.isObject()) {
    std::vector<Member> members;
    for (const auto& [key, value] : view.members())
      members.push_back({*key.text(), of(value)});
    return Object(std::move(members));
  }
  if (view.isList()) {
    Array list;
    for (const JsonView element : view.elements())
      list.push_back(of(element));
    return list;
  }
  if (auto text = view.text()) return std::move(*text);
  const std::string_view spelling = view.spelling();
  if (spelling.empty() || spelling == "null") return nullptr;
  if (spelling == "true" || spelling == "false") return spelling == "true";
  return number(spelling);
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

const Json::Array* Json::asObjects() const {
  const Array* list = asList();
  const bool all = list && std::ranges::all_of(*list, [](const Json& each) { return each.asObject(); });
  return all ? list : nullptr;
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
  // Among few, most differ in size, which is the cheapest to ask.
  auto at = members_.size() <= 8 ? std::ranges::find(members_, key, &Member::key) : position(members_, key);
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
