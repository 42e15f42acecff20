#include "Platform/Json/JsonReader.h"

#include <algorithm>

#include "Platform/Json/Utf8.h"

// One walk over a text that checks it and notes its values. Every step takes where something begins and gives
// where it ends, null when it is malformed.
class JsonReader::Pass {
 public:
  Pass(std::string_view text, std::vector<JsonView::Node>& nodes)
      : begin_(text.data()), end_(begin_ + text.size()), nodes_(nodes) {}

  bool wholeText() {
    const char* at = value(skipSpace(begin_), 0);
    return at && skipSpace(at) == end_;
  }

 private:
  bool is(char expected, const char* at) const { return at != end_ && *at == expected; }

  const char* skipSpace(const char* at) const {
    while (at != end_ && (*at == ' ' || *at == '\n' || *at == '\r' || *at == '\t'))
      ++at;
    return at;
  }

  JsonView::Node* add() {
    if (count_ == nodes_.size()) nodes_.resize(std::max<std::size_t>(32, 2 * count_));
    return &nodes_[count_++];
  }

  const char* note(const char* at, const char* last) {
    if (last) *add() = {{at, last}, 1};
    return last;
  }

  const char* value(const char* at, int depth) {
    switch (at != end_ ? *at : '\0') {
      case '{':
      case '[':
        return depth < maxDepth ? container(at, depth + 1) : nullptr;
      case '"':
        return note(at, string(at));
      case 't':
        return note(at, literal(at, "true"));
      case 'f':
        return note(at, literal(at, "false"));
      case 'n':
        return note(at, literal(at, "null"));
      default:
        return note(at, number(at));
    }
  }

  const char* container(const char* at, int depth) {
    const std::size_t opened = count_;
    add();
    const char* last = *at == '{' ? sequence(at, '}', [&](const char* part) { return member(part, depth); })
                                  : sequence(at, ']', [&](const char* part) { return value(part, depth); });
    if (last) nodes_[opened] = {{at, last}, count_ - opened};
    return last;
  }

  template <typename Part>
  const char* sequence(const char* at, char closing, Part&& part) {
    at = skipSpace(at + 1);
    if (is(closing, at)) return at + 1;
    while ((at = part(at))) {
      at = skipSpace(at);
      if (is(closing, at)) return at + 1;
      if (!is(',', at)) return nullptr;
      at = skipSpace(at + 1);
    }
    return nullptr;
  }

  const char* member(const char* at, int depth) {
    at = is('"', at) ? note(at, string(at)) : nullptr;
    if (!at) return nullptr;
    at = skipSpace(at);
    return is(':', at) ? value(skipSpace(at + 1), depth) : nullptr;
  }

  const char* string(const char* at) const {
    const std::size_t length = JsonString::length({at, end_});
    return length > 0 ? at + length : nullptr;
  }

  const char* literal(const char* at, std::string_view expected) const {
    return std::string_view(at, end_).starts_with(expected) ? at + expected.size() : nullptr;
  }

  const char* number(const char* at) const {
    at += is('-', at);
    at = is('0', at) ? at + 1 : digits(at);
    if (at && is('.', at)) at = digits(at + 1);
    if (!at || !(is('e', at) || is('E', at))) return at;
    ++at;
    return digits(at + (is('+', at) || is('-', at)));
  }

  // One or more.
  const char* digits(const char* at) const {
    const char* first = at;
    while (at != end_ && *at >= '0' && *at <= '9')
      ++at;
    return at != first ? at : nullptr;
  }

  const char *begin_, *end_;
  std::vector<JsonView::Node>& nodes_;
  std::size_t count_ = 0;  // of the nodes that this text has
};

JsonView JsonReader::read(std::string_view text) & {
  return Utf8::isValid(text) && Pass(text, nodes_).wholeText() ? JsonView(nodes_.data()) : JsonView();
}

char JsonView::front() const {
  return node_ ? node_->spelling.front() : '\0';
}

std::string_view JsonView::spelling() const {
  return node_ ? node_->spelling : std::string_view();
}

// What stands between the quotes of this string.
std::string_view JsonView::content() const {
  return node_->spelling.substr(1, node_->spelling.size() - 2);
}

JsonView::Range<JsonView> JsonView::elements() const {
  return isList() ? Range<JsonView>(node_) : Range<JsonView>();
}

JsonView::Range<JsonView::Member> JsonView::members() const {
  return isObject() ? Range<Member>(node_) : Range<Member>();
}

void JsonView::find(std::span<const std::string_view> keys, std::span<JsonView> found) const {
  // Most members are told apart from all that are sought by the first character of their key.
  const auto bit = [](char c) { return std::uint64_t{1} << (c & 63); };
  std::uint64_t initials = bit('\\');
  for (std::string_view key : keys)
    initials |= bit(key.empty() ? '"' : key.front());
  for (const auto& [key, value] : members()) {
    if (!(initials & bit(key.node_->spelling[1]))) continue;
    std::string_view name = key.content();
    std::string resolved;
    if (name.find('\\') != name.npos) name = resolved = JsonString::resolved(name);
    const auto which = std::ranges::find(keys, name);
    if (which != keys.end()) found[static_cast<std::size_t>(which - keys.begin())] = value;
  }
}

std::optional<std::string> JsonView::text(Enough enough) const {
  if (front() != '"') return std::nullopt;
  return JsonString::resolved(content(), enough);
}
