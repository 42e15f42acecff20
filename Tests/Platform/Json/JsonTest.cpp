#include "Platform/Json/Json.h"
#include "Platform/Json/JsonReader.h"

#include <gtest/gtest.h>

#include <limits>

#include "Tests/Support/Repeated.h"

namespace {

std::string reprinted(const std::string& text) {
  auto json = Json::parse(text);
  return json ? json->compact() : "malformed";
}

TEST(Json, ReadsWhatIsWellFormedAndRefusesWhatIsNot) {
  struct Row {
    const char* name;
    std::string text;
    std::string reprinted;
  };
  const Row rows[] = {
      {"white space around everything", " \t\r\n{ \"a\" : [ 1 , 2 ] } \n", R"({"a":[1,2]})"},
      {"keys are sorted by bytes", R"({"b":1,"a":2,"B":3,"é":4,"":5})", R"({"":5,"B":3,"a":2,"b":1,"é":4})"},
      {"of duplicate members the last holds", R"({"a":1,"b":2,"a":3})", R"({"a":3,"b":2})"},
      {"a slash is escaped", R"("a/b\/c")", R"("a\/b\/c")"},
      {"every short escape", R"("\"\\\/\b\f\n\r\t")", R"("\"\\\/\b\f\n\r\t")"},
      {"other control characters as four digits", R"("\u0000\u001F\u007f")", "\"\\u0000\\u001f\x7f\""},
      {"line separators stay as they are", R"("\u2028\u2029")", "\"\u2028\u2029\""},
      {"a surrogate pair is one character", R"("\ud83d\ude00")", "\"😀\""},
      {"a lone high surrogate is replaced", R"("a\ud83dx")", "\"a\uFFFDx\""},
      {"a lone low surrogate is replaced", R"("\ude00")", "\"\uFFFD\""},
      {"two high surrogates are replaced one by one", R"("\ud83d\ud83d\ude00")", "\"\uFFFD😀\""},
      {"the ends of what each number of bytes encodes", R"("\u007f\u0080\u07ff\u0800\ud7ff\ue000\uffff")",
       "\"\x7f\u0080\u07ff\u0800\uD7FF\uE000\uffff\""},
      {"the ends of the surrogate pairs", R"("\ud800\udc00\udbff\udfff")", "\"\U00010000\U0010FFFF\""},
      {"the ends of the surrogates alone", R"("\ud800\udbff\udc00\udc00\udfff")",
       "\"\uFFFD\U0010FC00"
       "\uFFFD\uFFFD\""},
      {"a key with escapes", R"({"\u0061\n":1})", R"({"a\n":1})"},
      {"a high surrogate before another escape", R"("\ud83d\n")", "\"\uFFFD\\n\""},
      {"a high surrogate before an ordinary escape", R"("\ud83d\u0041")", "\"\uFFFDA\""},
      {"the largest integers", "[9223372036854775807,-9223372036854775808]",
       "[9223372036854775807,-9223372036854775808]"},
      {"integers beyond 64 bits become doubles", "[9223372036854775808,-9223372036854775809]",
       "[9223372036854775808,-9223372036854775808]"},
      {"numbers beyond a double saturate", "[1e400,-1e400,1e-400]",
       "[1.7976931348623157e+308,-1.7976931348623157e+308,0]"},
      {"a long fraction of nothing underflows", "0." + std::string(400, '0') + "1", "0"},
      {"a huge exponent of a small mantissa", "[0.1e400,-0.00001e999,0.1e-400]",
       "[1.7976931348623157e+308,-1.7976931348623157e+308,0]"},
      {"a huge mantissa with a negative exponent", "1" + std::string(400, '0') + "e-5",
       "1.7976931348623157e+308"},
      {"a huge mantissa that its exponent brings back", "1" + std::string(400, '0') + "e-400", "1"},
      {"a thousand digits", std::string(1000, '9'), "1.7976931348623157e+308"},
      {"shortest doubles", "[0.1,2.50,1e2,1E+2,12.5e-1,0.012346]", "[0.1,2.5,100,100,1.25,0.012346]"},
      {"scalars at the top", "null", "null"},
      {"empty containers", "[{},[],\"\"]", "[{},[],\"\"]"},
      {"nothing", "", "malformed"},
      {"white space only", " \n", "malformed"},
      {"two values", "{} {}", "malformed"},
      {"a value behind the end", "{}x", "malformed"},
      {"a trailing comma in an array", "[1,]", "malformed"},
      {"a trailing comma in an object", R"({"a":1,})", "malformed"},
      {"a missing comma", "[1 2]", "malformed"},
      {"a missing colon", R"({"a" 1})", "malformed"},
      {"a key that is no string", "{a:1}", "malformed"},
      {"a comma first", "[,1]", "malformed"},
      {"the wrong bracket", R"({"a":[1})", "malformed"},
      {"the wrong bracket of an object", R"({"a":1])", "malformed"},
      {"a key without a value", R"({"a"})", "malformed"},
      {"a colon without a value", R"({"a":})", "malformed"},
      {"a backslash before a string", R"({"a":\"b"})", "malformed"},
      {"an open array", "[1", "malformed"},
      {"an open string", R"(["a)", "malformed"},
      {"strings side by side", R"(["a""b"])", "malformed"},
      {"a string with a tail", R"(["a"b])", "malformed"},
      {"a single quote", "['a']", "malformed"},
      {"a comment", "[1/**/]", "malformed"},
      {"a raw control character in a string", "\"a\nb\"", "malformed"},
      {"an unknown escape", R"("\x")", "malformed"},
      {"a short unicode escape", R"("\u12")", "malformed"},
      {"a sign in a unicode escape", R"("\u-123")", "malformed"},
      {"a leading zero", "01", "malformed"},
      {"a leading plus", "+1", "malformed"},
      {"a bare sign", "-", "malformed"},
      {"a bare point", "1.", "malformed"},
      {"a point first", ".5", "malformed"},
      {"a bare exponent", "1e", "malformed"},
      {"a hexadecimal number", "0x1", "malformed"},
      {"not a number", "NaN", "malformed"},
      {"a capital literal", "True", "malformed"},
      {"a literal with a tail", "nulls", "malformed"},
      {"a byte that is not UTF-8", "\"\xff\"", "malformed"},
      {"an encoded surrogate", "\"\xed\xa0\x80\"", "malformed"},
      {"an overlong slash", "\"\xc0\xaf\"", "malformed"},
      {"a NUL", std::string("\"a\0b\"", 5), "malformed"},
      {"a byte order mark", "\xEF\xBB\xBF{}", "malformed"},
  };
  for (const Row& row : rows)
    EXPECT_EQ(reprinted(row.text), row.reprinted) << row.name;
}

TEST(Json, ReadsEscapesWhereverTheyStandInALongText) {
  const std::string escapes = R"(\\n\\\"\u00e9\ud83d\ude00\ud83d\/\t)", meaning = "\\n\\\"é😀\uFFFD/\t";
  for (std::size_t before = 0; before < 140; ++before) {
    const std::string plain(before, 'x');
    auto json = Json::parse("[\"" + plain + escapes + plain + "\"]");
    ASSERT_TRUE(json) << before;
    EXPECT_EQ(*json, Json(Json::Array{plain + meaning + plain})) << before;
    for (const char* malformed : {R"(\q)", R"(\u12g4)", R"(\\\x)", R"(\U0041)"})
      EXPECT_FALSE(Json::parse("[\"" + plain + malformed + plain + "\"]")) << before << malformed;
  }
}

TEST(Json, NestsToItsBoundAndNoDeeper) {
  const std::pair<const char*, const char*> levels[] = {{"[", "]"}, {R"({"a":)", "}"}};
  for (const auto& [open, close] : levels) {
    const auto nested = [&](int depth) {
      const auto times = static_cast<std::size_t>(depth);
      return repeated(open, times) + "1" + repeated(close, times);
    };
    EXPECT_TRUE(Json::parse(nested(JsonReader::maxDepth))) << open;
    EXPECT_FALSE(Json::parse(nested(JsonReader::maxDepth + 1))) << open;
    EXPECT_FALSE(Json::parse(nested(5'000'000))) << open;
    EXPECT_FALSE(Json::parse(repeated(open, 1'000'000))) << open;
  }
}

TEST(Json, TakesOnlyAnObjectWhereOneIsWanted) {
  EXPECT_TRUE(Json::parseObject("{}"));
  for (const char* text : {"[]", "1", "\"{}\"", "null", "", "{", "{}{}"})
    EXPECT_FALSE(Json::parseObject(text)) << text;
}

TEST(Json, ReadsMembersDefensively) {
  auto object = *Json::parseObject(
      R"({"text":"t","whole":10.0,"half":10.5,"huge":1e19,"flag":true,"one":1,"null":null,
          "list":[1],"object":{"a":1},"empty":""})");
  EXPECT_EQ(object.text("text"), "t");
  EXPECT_EQ(object.integer("whole"), 10);
  EXPECT_EQ(object.integer("half"), 0);
  EXPECT_EQ(object.integer("huge"), 0);
  EXPECT_EQ(object.integer("flag"), 0);
  EXPECT_TRUE(object.flag("flag"));
  EXPECT_FALSE(object.flag("one"));
  EXPECT_EQ(object.list("list").size(), 1u);
  EXPECT_EQ(object.object("object").integer("a"), 1);
  EXPECT_EQ(object.optionalText("empty"), "");
  for (const char* key : {"missing", "null", "one", "list", "object"}) {
    EXPECT_EQ(object.text(key), "") << key;
    EXPECT_FALSE(object.optionalText(key)) << key;
  }
  for (const char* key : {"missing", "null", "text"}) {
    EXPECT_TRUE(object.object(key).empty()) << key;
    EXPECT_TRUE(object.list(key).empty()) << key;
  }
  EXPECT_FALSE(object.find("flag")->asNumber());
  EXPECT_FALSE(object.find("one")->asFlag());
  EXPECT_FALSE(Json::parse(R"(["a",1])")->asTexts());
  EXPECT_EQ(Json::parse(R"(["a","b"])")->asTexts(), (std::vector<std::string>{"a", "b"}));
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
  EXPECT_EQ(Json("a\xff"
                 "b\xe2\x82")
                .compact(),
            "\"a\uFFFDb\uFFFD\uFFFD\"");
  EXPECT_EQ(Json("\xed\xa0\x80é").compact(), "\"\uFFFD\uFFFD\uFFFDé\"");
  EXPECT_EQ(Json(Json::Object{{"a", Json::Array{1, Json::Object{}}}, {"b", true}}).pretty(),
            "{\n  \"a\": [\n    1,\n    {}\n  ],\n  \"b\": true\n}");
}

}  // namespace
