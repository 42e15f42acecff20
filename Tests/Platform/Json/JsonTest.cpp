#include "Platform/Json/Json.h"
#include "Platform/Json/JsonReader.h"

#include <gtest/gtest.h>

#include <limits>

#include "Tests/Support/Repeated.h"
#include "Tests/Support/Table.h"

namespace {

TEST(Json, ReadsWhatIsWellFormed) {
  // text ¦ written again
  for (const auto& row : cases(1, R"(
      ␠␉␍␊{ "a" : [ 1 , 2 ] }␠␊                    ¦ {"a":[1,2]}
      {"b":1,"a":2,"B":3,"é":4,"":5}               ¦ {"":5,"B":3,"a":2,"b":1,"é":4}
      {"a":1,"b":2,"a":3,"\u0061\n":4}             ¦ {"a":3,"a\n":4,"b":2}
      ["a/b\/c","\"\\\/\b\f\n\r\t"]                ¦ ["a\/b\/c","\"\\\/\b\f\n\r\t"]
      ["\u0000\u001F\u007f","\u2028\u2029"]        ¦ ["\u0000\u001f␡","«E280A8E280A9»"]
      ["\ud83d\ude00","\ud83d\ud83d\ude00"]        ¦ ["😀","�😀"]
      ["a\ud83dx","\ude00","\ud83d\n"]             ¦ ["a�x","�","�\n"]
      "\u007f\u0080\u07ff\u0800\ud7ff\ue000\uffff" ¦ "␡«C280DFBFE0A080ED9FBFEE8080EFBFBF»"
      "\ud800\udc00\udbff\udfff\ud83d\u0041"       ¦ "«F0908080F48FBFBF»�A"
      "\ud800\udbff\udc00\udc00\udfff"             ¦ "�«F48FB080»��"
      [9223372036854775807,-9223372036854775808]   ¦ [9223372036854775807,-9223372036854775808]
      [9223372036854775808,-9223372036854775809]   ¦ [9223372036854775808,-9223372036854775808]
      [1e400,-1e400,1e-400]                        ¦ [1.7976931348623157e+308,-1.7976931348623157e+308,0]
      [0.1e400,-0.00001e999,0.1e-400]              ¦ [1.7976931348623157e+308,-1.7976931348623157e+308,0]
      [1«0×400»e-5,«9×1000»]                       ¦ [1.7976931348623157e+308,1.7976931348623157e+308]
      [0.«0×400»1,1«0×400»e-400]                   ¦ [0,1]
      [0.1,2.50,1e2,1E+2,12.5e-1,0.012346]         ¦ [0.1,2.5,100,100,1.25,0.012346]
      [{},[],""]                                   ¦ [{},[],""]
      null                                         ¦ null
      )")) {
    const auto json = Json::parse(row[0]);
    EXPECT_EQ(json ? json->compact() : "malformed", row[1]) << row[0];
  }
}

TEST(Json, RefusesWhatIsMalformed) {
  for (const auto& row : cases(0, R"(
      ∅ ¦ ␠␊ ¦ {} {} ¦ {}x ¦ [1,] ¦ {"a":1,} ¦ [1 2] ¦ {"a" 1} ¦ {a:1} ¦ [,1] ¦ {"a":[1} ¦ {"a":1]
      {"a"} ¦ {"a":} ¦ {"a":\"b"} ¦ [1 ¦ ["a ¦ ["a""b"] ¦ ["a"b] ¦ ['a'] ¦ [1/**/]
      "a␊b" ¦ "a␀b" ¦ "\x" ¦ "\u12" ¦ "\u-123" ¦ "«FF»" ¦ "«EDA080»" ¦ "«C0AF»" ¦ «EFBBBF»{}
      01 ¦ +1 ¦ - ¦ 1. ¦ .5 ¦ 1e ¦ 0x1 ¦ NaN ¦ True ¦ nulls
      )"))
    EXPECT_FALSE(Json::parse(row[0])) << row[0];
}

TEST(Json, ReadsEscapesWhereverTheyStandInALongText) {
  for (std::size_t before = 0; before < 140; ++before) {
    const std::string plain(before, 'x');
    const auto json = Json::parse("[\"" + plain + R"(\\n\\\"\u00e9\ud83d\ude00\ud83d\/\t)" + plain + "\"]");
    EXPECT_EQ(json, Json(Json::Array{plain + "\\n\\\"é😀\uFFFD/\t" + plain})) << before;
    for (const std::string& malformed : words(R"(\q \u12g4 \\\x \U0041)"))
      EXPECT_FALSE(Json::parse("[\"" + plain + malformed + plain + "\"]")) << before << malformed;
  }
}

TEST(Json, Nests512LevelsAndNoMore) {
  for (const auto& [open, close] : {std::pair("[", "]"), std::pair(R"({"a":)", "}")}) {
    for (std::size_t depth : {512, 513, 5'000'000}) {
      const auto json = Json::parse(repeated(open, depth) + "1" + repeated(close, depth));
      EXPECT_EQ(json.has_value(), depth == 512) << open << depth;
    }
    EXPECT_FALSE(Json::parse(repeated(open, 1'000'000))) << open;
  }
}

TEST(Json, ReadsMembersDefensively) {
  EXPECT_TRUE(Json::parseObject("{}"));
  for (const std::string& text : words(R"([] 1 "{}" null { {}{})"))
    EXPECT_FALSE(Json::parseObject(text)) << text;
  // "x" as a text, a text if it is one, an integer, a flag, a list and an object ¦ members
  for (const auto& row : cases(1, R"(
      ["",null,0,false,[],{}]      ¦ "y":1 ¦ "x":null ¦ "x":10.5 ¦ "x":1e19
      ["t","t",0,false,[],{}]      ¦ "x":"t"
      ["","",0,false,[],{}]        ¦ "x":""
      ["",null,10,false,[],{}]     ¦ "x":10.0 ¦ "x":10
      ["",null,0,true,[],{}]       ¦ "x":true
      ["",null,0,false,[1],{}]     ¦ "x":[1]
      ["",null,0,false,[],{"a":1}] ¦ "x":{"a":1}
      )")) {
    const auto in = *Json::parseObject("{" + row[1] + "}");
    const Json text = in.optionalText("x") ? Json(*in.optionalText("x")) : Json();
    const Json::Array read{in.text("x"), text, in.integer("x"), in.flag("x"), in.list("x"), in.object("x")};
    EXPECT_EQ(Json(read).compact(), row[0]) << row[1];
  }
  EXPECT_FALSE(Json(true).asNumber());
  EXPECT_FALSE(Json(1).asFlag());
  EXPECT_FALSE(Json::parse(R"(["a",1])")->asTexts());
  EXPECT_EQ(Json::parse(R"(["a","b"])")->asTexts(), words("a b"));
}

TEST(Json, ChangesMembersInPlace) {
  Json::Object object{{"b", 1}, {"a", 2}, {"b", 3}};
  object.set("c", "x");
  object.set("a", nullptr);
  EXPECT_EQ(Json(object).compact(), R"({"a":null,"b":3,"c":"x"})");
  EXPECT_EQ(object.take("b"), Json(3));
  EXPECT_FALSE(object.take("b"));
  EXPECT_EQ(Json(object).compact(), R"({"a":null,"c":"x"})");
}

TEST(Json, WritesOnlyValidJson) {
  EXPECT_EQ(Json(std::numeric_limits<double>::infinity()).compact(), "null");
  EXPECT_EQ(Json(rows("a«FF»b«E282» ¦ «EDA080»é")[0]).compact(), R"(["a�b��","���é"])");
  EXPECT_EQ(Json(Json::Object{{"a", Json::Array{1, Json::Object{}}}, {"b", true}}).pretty(),
            "{\n  \"a\": [\n    1,\n    {}\n  ],\n  \"b\": true\n}");
}

}  // namespace
