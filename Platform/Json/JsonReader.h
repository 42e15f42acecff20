// Reads JSON texts (RFC 8259) where they stand. A text is checked whole first, as strictly as Json::parse
// does; then its values are found by name and built one by one, so that what nobody asks for costs no more
// than the check.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Json/Json.h"

class JsonReader;

// One value of a text that has been read, or none. Copies cheaply; lasts no longer than the text, and no
// longer than until its reader reads the next one.
class JsonView {
 public:
  class Elements;

  JsonView() = default;  // none

  explicit operator bool() const { return reader_ != nullptr; }
  bool isObject() const { return front() == '{'; }
  bool isList() const { return front() == '['; }
  bool hasMembers() const { return isObject() && bool(firstInside()); }

  // The values of the members under `keys`, in the order of the keys; none for a key without a member, and
  // for all of them when this is no object. Of duplicate members the last holds.
  template <std::size_t count>
  std::array<JsonView, count> members(const std::string_view (&keys)[count]) const {
    std::array<JsonView, count> found;
    find(keys, found);
    return found;
  }

  Elements elements() const;  // of a list, in their order; none when this is no list

  // The string, absent when this is none. Of one that has more than `enough` user-perceived characters, white
  // space not counted, only a beginning with more than so many need be built.
  std::optional<std::string> text(std::size_t enough = std::string_view::npos) const;

  Json value() const;  // with all that is in it; null when there is none

 private:
  friend class JsonReader;
  JsonView(const JsonReader* reader, std::size_t at) : reader_(reader), at_(at) {}

  char front() const;
  JsonView firstInside() const;
  JsonView valueOfKey() const { return {reader_, at_ + 2}; }
  JsonView sibling() const;
  std::string_view token() const;
  std::string_view content() const;
  void find(std::span<const std::string_view> keys, std::span<JsonView> found) const;

  const JsonReader* reader_ = nullptr;
  std::size_t at_ = 0;  // which of the reader's positions it begins at
};

// For a range-based for.
class JsonView::Elements {
 public:
  explicit Elements(JsonView first) : current_(first) {}
  Elements begin() const { return *this; }
  std::nullptr_t end() const { return nullptr; }
  bool operator==(std::nullptr_t) const { return !current_; }
  JsonView operator*() const { return current_; }
  Elements& operator++() {
    current_ = current_.sibling();
    return *this;
  }

 private:
  JsonView current_;
};

// Keeps its memory from one text to the next.
class JsonReader {
 public:
  JsonReader();
  JsonReader(const JsonReader&) = delete;
  JsonReader& operator=(const JsonReader&) = delete;
  ~JsonReader();

  // The one value that `text` consists of; none when the text is malformed.
  JsonView read(std::string_view text) &;

 private:
  friend class JsonView;
  struct Index;

  std::unique_ptr<Index> index_;
  const char* text_ = nullptr;
  const std::uint32_t* positions_ = nullptr;  // of the structural characters and scalars, then the text's end
  std::unique_ptr<std::uint32_t[]>
      ends_;  // where a list or object opens at a position: which one is behind it
};
