#include "Platform/Json/JsonReader.h"

#include "Platform/Json/Json.h"

#include <gtest/gtest.h>

namespace {

std::string shown(JsonView view) {
  return view ? Json::of(view).compact() : "none";
}

TEST(JsonReader, FindsMembersByTheirKeys) {
  struct Row {
    const char* text;
    const char *first, *second;  // under "a" and "list"
  };
  const Row rows[] = {
      {R"({"a":1,"list":[2]})", "1", "[2]"},
      {R"({"b":1,"a":{"x":[1,{"y":2}]},"c":[{"a":1}]})", R"({"x":[1,{"y":2}]})", "none"},
      {R"({"list":[[],{},[{"a":1}]],"a":null})", "null", R"([[],{},[{"a":1}]])"},
      {R"( { "list" : 1 , "a" : "x" } )", R"("x")", "1"},
      {R"({"a":1,"\u0061":2,"l\u0069st":3})", "2", "3"},
      {R"({"a":1,"\u0061":2,"a":3,"list":4})", "3", "4"},
      {R"({"a ":1," a":2,"\u0061b":3,"A":4,"":5,"lis":6,"lists":7})", "none", "none"},
      {"{\"a\"\r:1\n,\"list\"\n:2\r}", "1", "2"},
      {R"({"b":"\"a\":1","a":0})", "0", "none"},
      {R"({"b":{"a":1},"c":["a","list"]})", "none", "none"},
      {R"({})", "none", "none"},
      {R"([{"a":1}])", "none", "none"},
      {R"("a")", "none", "none"},
      {R"({"a":1,"list":[1,]})", "none", "none"},
  };
  JsonReader reader;
  const auto [empty] = reader.read(R"({"a":1,"":2})").members({""});
  EXPECT_EQ(shown(empty), "2");
  for (const Row& row : rows) {
    const auto [first, second] = reader.read(row.text).members({"a", "list"});
    EXPECT_EQ(shown(first), row.first) << row.text;
    EXPECT_EQ(shown(second), row.second) << row.text;
  }
}

TEST(JsonReader, WalksListsAndKnowsAnEmptyObject) {
  struct Row {
    const char* text;
    const char* elements;
    bool hasMembers;
  };
  const Row rows[] = {
      {R"([1,"],",[2,[3]],{"a":[4,5]},null])", R"(1;"],";[2,[3]];{"a":[4,5]};null;)", false},
      {"[1\r\n,\"x\"\r,\"y\"\n,[2\t]\r]", R"(1;"x";"y";[2];)", false},
      {"[[]]", "[];", false},
      {"[ ]", "", false},
      {"{ }", "", false},
      {R"({"a":[1]})", "", true},
      {R"("[1]")", "", false},
      {"[1", "", false},
      {"", "", false},
  };
  JsonReader reader;
  for (const Row& row : rows) {
    const JsonView root = reader.read(row.text);
    std::string elements;
    for (JsonView element : root.elements())
      elements += shown(element) + ";";
    EXPECT_EQ(elements, row.elements) << row.text;
    EXPECT_EQ(!root.members().empty(), row.hasMembers) << row.text;
  }
}

TEST(JsonReader, BuildsNoMoreOfATextThanIsEnough) {
  struct Row {
    const char* text;
    std::size_t enough;
    std::string built;
  };
  const Row rows[] = {
      {R"("abcd")", 9, "abcd"},
      {R"("abcd")", 3, "abcd"},
      {R"("abcd")", 2, "abc"},
      {R"(" a\n\\b\u0301\ud83d\ude00 cd")", 2, " a\n\\b\u0301\U0001F600 c"},
      {R"("é \t\u0061bcd")", 2, "é \tabcd"},
      {R"("\u00e9\u00e9\u00e9\u00e9")", 2, "éééé"},
      {R"("\n\n\n\n\n\nab\ncde")", 2, "\n\n\n\n\n\nab\nc"},
      {"\"ééééabcd\"", 2, "ééééabc"},
  };
  JsonReader reader;
  for (const Row& row : rows)
    EXPECT_EQ(reader.read(row.text).text({row.enough}), row.built) << row.text;
  for (const char* other : {"1", "null", "[\"a\"]", R"({"a":"b"})", "\"a", ""})
    EXPECT_FALSE(reader.read(other).text()) << other;
}

TEST(JsonReader, ReadsTextsOfAnySizeInAnyOrder) {
  JsonReader reader;
  for (int count : {3, 100'000, 0, 50, 200'000, 1}) {
    std::string text = "[";
    for (int i = 0; i < count; ++i)
      text += (i ? ",{\"n\":" : "{\"n\":") + std::to_string(i) + "}";
    text += "]";
    int next = 0;
    for (JsonView element : reader.read(text).elements()) {
      const auto [number] = element.members({"n"});
      ASSERT_EQ(Json::of(number), Json(next++)) << count;
    }
    EXPECT_EQ(next, count);
  }
}

}  // namespace
