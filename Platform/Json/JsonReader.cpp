#include "Platform/Json/JsonReader.h"

#include <simdjson.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <limits>
#include <span>

#include "Platform/Json/JsonEscapes.h"

namespace {

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

bool isLiteralOrNumber(std::string_view token) {
  return token == "null" || token == "true" || token == "false" || numberForm(token).valid;
}

Json number(std::string_view token) {
  const char *first = token.data(), *const end = first + token.size();
  std::int64_t integer = 0;
  if (numberForm(token).integral && std::from_chars(first, end, integer).ec == std::errc()) return integer;
  double value = 0;
  if (std::from_chars(first, end, value).ec != std::errc::result_out_of_range) return value;
  constexpr double most = std::numeric_limits<double>::max();
  return std::clamp(std::strtod(std::string(token).c_str(), nullptr), -most, most);
}

std::string_view withoutSpaceBehind(std::string_view token) {
  while (!token.empty() && isSpace(token.back()))
    token.remove_suffix(1);
  return token;
}

// Checks the grammar of one text along the positions of its structural characters and scalars, and notes
// where its lists and objects end.
class Grammar {
 public:
  Grammar(std::string_view text, std::span<const std::uint32_t> positions, std::uint32_t* ends)
      : text_(text), positions_(positions), ends_(ends) {}

  bool holds() { return value(0) && next_ == positions_.size(); }

 private:
  char peek() const { return next_ < positions_.size() ? text_[positions_[next_]] : '\0'; }

  bool take(char expected) {
    if (peek() != expected) return false;
    ++next_;
    return true;
  }

  bool value(int depth) {
    switch (peek()) {
      case '[':
        return depth < Json::maxDepth && list(depth + 1);
      case '{':
        return depth < Json::maxDepth && object(depth + 1);
      case '"':
        return take('"');
      default:
        return scalar();
    }
  }

  bool list(int depth) {
    const std::size_t first = next_++;
    if (!take(']')) {
      do {
        if (!value(depth)) return false;
      } while (take(','));
      if (!take(']')) return false;
    }
    ends_[first] = static_cast<std::uint32_t>(next_);
    return true;
  }

  bool object(int depth) {
    const std::size_t first = next_++;
    if (!take('}')) {
      do {
        if (!take('"') || !take(':') || !value(depth)) return false;
      } while (take(','));
      if (!take('}')) return false;
    }
    ends_[first] = static_cast<std::uint32_t>(next_);
    return true;
  }

  bool scalar() {
    if (next_ == positions_.size()) return false;
    const std::size_t first = positions_[next_++];
    const std::size_t end = next_ < positions_.size() ? positions_[next_] : text_.size();
    return isLiteralOrNumber(withoutSpaceBehind(text_.substr(first, end - first)));
  }

  std::string_view text_;
  std::span<const std::uint32_t> positions_;
  std::uint32_t* ends_;
  std::size_t next_ = 0;
};

}  // namespace

struct JsonReader::Index {
  std::unique_ptr<simdjson::internal::dom_parser_implementation> of;
};

JsonReader::JsonReader() : index_(std::make_unique<Index>()) {}
JsonReader::~JsonReader() = default;

JsonView JsonReader::read(std::string_view text) & {
  // Positions are 32 bits wide. A backslash outside a string is refused with the token that it stands in.
  if (text.size() > std::numeric_limits<std::uint32_t>::max() - 64 || !JsonEscapes::areValid(text)) return {};
  auto& index = index_->of;
  if (!index || index->capacity() < text.size()) {
    // As many as there can be positions; what no list and no object needs stays untouched memory.
    ends_ = std::make_unique_for_overwrite<std::uint32_t[]>(text.size());
    if (simdjson::get_active_implementation()->create_dom_parser_implementation(text.size(), 1, index) !=
        simdjson::SUCCESS)
      return {};
  }
  // Finds the positions, and checks the UTF-8, the quotes and the control characters in strings on the way.
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  if (index->stage1(bytes, text.size(), simdjson::stage1_mode::regular) != simdjson::SUCCESS) return {};
  const std::size_t count = index->n_structural_indexes;
  std::uint32_t* positions = index->structural_indexes.get();
  positions[count] = static_cast<std::uint32_t>(text.size());  // where the last one's token ends
  text_ = text.data();
  positions_ = positions;
  return Grammar(text, {positions, count}, ends_.get()).holds() ? JsonView(this, 0) : JsonView();
}

char JsonView::front() const {
  return reader_ ? reader_->text_[reader_->positions_[at_]] : '\0';
}

JsonView::Elements JsonView::elements() const {
  return Elements(isList() ? firstInside() : JsonView());
}

// The first element of a list or key of an object; none when there is none.
JsonView JsonView::firstInside() const {
  if (!isList() && !isObject()) return {};
  const JsonView first(reader_, at_ + 1);
  return first.front() != ']' && first.front() != '}' ? first : JsonView();
}

// The next element of a list or key of an object behind this element or member's value; none behind the last.
JsonView JsonView::sibling() const {
  const JsonView behind(reader_, isList() || isObject() ? reader_->ends_[at_] : at_ + 1);
  return behind.front() == ',' ? JsonView(reader_, behind.at_ + 1) : JsonView();
}

std::string_view JsonView::token() const {
  const std::uint32_t* bounds = reader_->positions_ + at_;
  return withoutSpaceBehind({reader_->text_ + bounds[0], bounds[1] - bounds[0]});
}

// What stands between the quotes of this string. Its end needs no search: whatever follows a closing quote is
// white space or has a position of its own.
std::string_view JsonView::content() const {
  const std::string_view quoted = token();
  return quoted.substr(1, quoted.size() - 2);
}

void JsonView::find(std::span<const std::string_view> keys, std::span<JsonView> found) const {
  if (!isObject()) return;
  // Most members are told apart from all that are sought by the first character of their key.
  const auto bit = [](char c) { return std::uint64_t{1} << (c & 63); };
  std::uint64_t initials = bit('\\');
  for (std::string_view key : keys)
    initials |= bit(key.empty() ? '"' : key.front());
  for (JsonView key = firstInside(); key; key = key.valueOfKey().sibling()) {
    if (!(initials & bit(reader_->text_[reader_->positions_[key.at_] + 1]))) continue;
    std::string_view name = key.content();
    std::string spelled;
    if (name.find('\\') != name.npos) name = spelled = JsonEscapes::resolved(name);
    const auto which = std::ranges::find(keys, name);
    if (which != keys.end()) found[static_cast<std::size_t>(which - keys.begin())] = key.valueOfKey();
  }
}

std::optional<std::string> JsonView::text(std::size_t enough) const {
  if (front() != '"') return std::nullopt;
  return JsonEscapes::resolved(content(), enough);
}

Json JsonView::value() const {
  switch (front()) {
    case '[': {
      Json::Array list;
      for (JsonView element : elements())
        list.push_back(element.value());
      return list;
    }
    case '{': {
      std::vector<Json::Member> members;
      for (JsonView key = firstInside(); key; key = key.valueOfKey().sibling())
        members.push_back({JsonEscapes::resolved(key.content()), key.valueOfKey().value()});
      return Json::Object(std::move(members));
    }
    case '"':
      return JsonEscapes::resolved(content());
    case 't':
      return true;
    case 'f':
      return false;
    case 'n':
    case '\0':
      return nullptr;
    default:
      return number(token());
  }
}
