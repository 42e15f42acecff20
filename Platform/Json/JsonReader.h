// Reads JSON texts (RFC 8259) where they stand. A text is checked whole first, strict about grammar and
// UTF-8; then its values are found by name and built one by one, so that what nobody asks for costs no more
// than the check. Nesting beyond `maxDepth` is malformed.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Platform/Json/JsonString.h"

// One value of a text that has been read, or none. Copies cheaply; lasts no longer than the text, and no
// longer than until its reader reads the next one.
class JsonView {
 public:
  struct Member;
  template <typename Item>
  class Range;

  JsonView() = default;  // none

  explicit operator bool() const { return node_ != nullptr; }
  bool isObject() const { return front() == '{'; }
  bool isList() const { return front() == '['; }

  // As it is written in the text; empty when there is none.
  std::string_view spelling() const;

  Range<JsonView> elements() const;  // of a list, in their order; none when this is no list
  Range<Member> members() const;     // of an object, in their order; none when this is no object

  // The values of the members under `keys`, in the order of the keys; none for a key without a member, and
  // for all of them when this is no object. Of duplicate members the last holds.
  template <std::size_t count>
  std::array<JsonView, count> members(const std::string_view (&keys)[count]) const {
    std::array<JsonView, count> found;
    find(keys, found);
    return found;
  }

  // The string, absent when this is none.
  std::optional<std::string> text(Enough enough = {}) const;

 private:
  friend class JsonReader;

  // A value, with those that it holds behind it; or a member's key, with its value behind it.
  struct Node {
    std::string_view spelling;
    std::size_t count;  // of nodes that the value takes
  };

  explicit JsonView(const Node* node) : node_(node) {}

  char front() const;
  std::string_view content() const;
  void find(std::span<const std::string_view> keys, std::span<JsonView> found) const;

  const Node* node_ = nullptr;
};

struct JsonView::Member {
  JsonView key, value;
};

// For a range-based for.
template <typename Item>
class JsonView::Range {
 public:
  Range() = default;
  explicit Range(const Node* holder) : at_(holder + 1), last_(holder + holder->count) {}
  bool empty() const { return at_ == last_; }
  Range begin() const { return *this; }
  std::nullptr_t end() const { return nullptr; }
  bool operator==(std::nullptr_t) const { return empty(); }
  Item operator*() const {
    if constexpr (keyed)
      return {JsonView(at_), JsonView(at_ + 1)};
    else
      return JsonView(at_);
  }
  Range& operator++() {
    at_ += keyed + at_[keyed].count;
    return *this;
  }

 private:
  static constexpr bool keyed = std::is_same_v<Item, Member>;
  const Node *at_ = nullptr, *last_ = nullptr;
};

// Keeps its memory from one text to the next.
class JsonReader {
 public:
  static constexpr int maxDepth = 512;

  // The one value that `text` consists of; none when the text is malformed.
  JsonView read(std::string_view text) &;

 private:
  class Pass;

  std::vector<JsonView::Node> nodes_;
};
