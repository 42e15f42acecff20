// One JSON value (RFC 8259): null, Boolean, 64-bit integer, double, string, array or object.
//
// Reading is defensive: a member that is missing or of another type gives the empty value of the type asked
// for, never an error. Writing never fails. Objects keep their members sorted by the bytes of the keys, so
// equal values have equal bytes; of duplicate members in a text the last holds.
//
// The parser is strict about grammar and UTF-8, and lenient where strictness would let a hostile number or
// string switch the guard off: integers beyond 64 bits become doubles, numbers beyond a double's range
// saturate, a lone surrogate escape becomes U+FFFD. Nesting beyond `JsonReader::maxDepth` is malformed.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

class JsonView;

class Json {
 public:
  struct Member;
  using Array = std::vector<Json>;

  class Object {
   public:
    Object();
    Object(const Object&);
    Object(Object&&) noexcept;
    Object& operator=(const Object&);
    Object& operator=(Object&&) noexcept;
    ~Object();
    Object(std::initializer_list<Member> members);  // of equal keys the last holds
    explicit Object(std::vector<Member> members);   // in any order; of equal keys the last holds

    bool empty() const;
    std::size_t size() const;
    std::vector<Member>::const_iterator begin() const;
    std::vector<Member>::const_iterator end() const;

    const Json* find(std::string_view key) const;    // null when there is no such member
    void set(std::string_view key, Json value);      // adds or replaces
    std::optional<Json> take(std::string_view key);  // removes and returns; absent when there is none

    // The member's value, or the empty value when it is missing or of another type. References live as long
    // as the object does.
    const std::string& text(std::string_view key) const;
    std::int64_t integer(std::string_view key) const;
    bool flag(std::string_view key) const;
    const Object& object(std::string_view key) const;
    const Array& list(std::string_view key) const;
    // The string under `key`, or absent when it is missing or not a string.
    std::optional<std::string> optionalText(std::string_view key) const;

    bool operator==(const Object& other) const;

   private:
    std::vector<Member> members_;  // sorted by key, keys distinct
  };

  Json(std::nullptr_t = nullptr) {}
  Json(bool value) : value_(value) {}
  Json(int value) : value_(std::int64_t{value}) {}
  Json(std::int64_t value) : value_(value) {}
  Json(double value) : value_(value) {}
  Json(std::string value) : value_(std::move(value)) {}
  Json(std::string_view value) : value_(std::string(value)) {}
  Json(const char* value) : value_(std::string(value)) {}
  Json(Array value) : value_(std::move(value)) {}
  Json(Object value) : value_(std::move(value)) {}
  Json(const std::vector<std::string>& strings);  // an array of strings

  // The value of one JSON text of any kind; absent when it is malformed or empty.
  static std::optional<Json> parse(std::string_view text);

  // A value that has been read, with all that is in it; null when `view` is none.
  static Json of(JsonView view);

  // The members of one JSON text whose top level is an object; absent for every other text.
  static std::optional<Object> parseObject(std::string_view text);

  // Compact: no white space. Pretty: two-space indent, one member or element a line, no final line feed.
  // "/" is written as "\/", everything beyond ASCII as UTF-8, control characters as escapes; doubles in the
  // shortest form that reads back equal, non-finite ones as null; bytes that are not UTF-8 as U+FFFD.
  std::string compact() const;
  std::string pretty() const;

  bool isNull() const { return std::holds_alternative<std::nullptr_t>(value_); }

  // Typed reads: null or absent when the value is of another type. A Boolean is no number, nor a number a
  // Boolean.
  const std::string* asText() const { return std::get_if<std::string>(&value_); }
  const Array* asList() const { return std::get_if<Array>(&value_); }
  const Object* asObject() const { return std::get_if<Object>(&value_); }
  const bool* asFlag() const { return std::get_if<bool>(&value_); }
  std::optional<double> asNumber() const;  // any number; an integer is converted
  // A number whose value is exactly an integer of 64 bits: 10 and 10.0, but not 10.5.
  std::optional<std::int64_t> asInteger() const;
  const Array* asObjects() const;  // a list that holds only objects
  // The elements of a list that holds only strings.
  std::optional<std::vector<std::string>> asTexts() const;

  bool operator==(const Json& other) const = default;

  // Calls `visit` with the value as the alternative that it holds.
  template <typename Visitor>
  decltype(auto) visit(Visitor&& visitor) const {
    return std::visit(std::forward<Visitor>(visitor), value_);
  }

 private:
  std::variant<std::nullptr_t, bool, std::int64_t, double, std::string, Array, Object> value_;
};

struct Json::Member {
  std::string key;
  Json value;

  bool operator==(const Member& other) const = default;
};
