#include <limits>

#include "Tests/Support/TranscriptFixture.h"

namespace {

constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();

using TranscriptLineTest = TranscriptFixture;

TEST_F(TranscriptLineTest, TellsLinesByTheirTypeAlone) {
  struct Row {
    const char* sentence;
    const char* line;
    std::size_t calls;
    std::int64_t toolUses;
  };
  const Row rows[] = {
      {"an assistant line with a model is a call", R"({"type":"assistant","model":"m"})", 1, 0},
      {"a tool_use line is a tool use", R"({"type":"tool_use","model":"m"})", 0, 1},
      {"a tool line is a tool use", R"({"type":"tool"})", 0, 1},
      {"a user line is neither", R"({"type":"user","model":"m"})", 0, 0},
      {"a system line is neither", R"({"type":"system","model":"m"})", 0, 0},
      {"case counts", R"({"type":"Assistant","model":"m"})", 0, 0},
      {"space counts", R"({"type":"tool ","model":"m"})", 0, 0},
      {"no type is none", R"({"model":"m"})", 0, 0},
      {"a type that is no string is none", R"({"type":["tool"],"model":"m"})", 0, 0},
      {"the type within the message is not the line's", R"({"message":{"type":"tool"}})", 0, 0},
      {"a key may be spelled with escapes", R"({"t\u0079p\u0065":"\u0074ool"})", 0, 1},
      {"of two types the last holds", R"({"type":"tool","type":"assistant","model":"m"})", 1, 0},
      {"nesting within bounds is nothing special", R"({"type":"tool","x":[[[[[[[[{"type":"x"}]]]]]]]]})", 0,
       1},
      {"no model and no tokens is no call", R"({"type":"assistant"})", 0, 0},
      {"nor is one of cache tokens only", R"({"type":"assistant","usage":{"cacheReadInputTokens":5}})", 0, 0},
      {"nor one of negative tokens", R"({"type":"assistant","usage":{"input_tokens":-5,"output_tokens":-1}})",
       0, 0},
      {"tokens in are enough", R"({"type":"assistant","usage":{"input_tokens":1}})", 1, 0},
      {"tokens out are enough", R"({"type":"assistant","usage":{"output_tokens":1}})", 1, 0},
      {"a message of another type counts as none", R"({"type":"assistant","message":[],"model":"m"})", 1, 0},
      {"an error of the agent's own is a call too",
       R"({"type":"assistant","isApiErrorMessage":true,"message":{"model":"<synthetic>","content":[]}})", 1,
       0},
  };
  for (const Row& row : rows) {
    TranscriptSummary summary = parse(row.line);
    EXPECT_EQ(summary.calls.size(), row.calls) << row.sentence;
    EXPECT_EQ(summary.toolUses, row.toolUses) << row.sentence;
  }
  std::string deep = R"({"type":"tool","x":)" + repeated("[", 600) + repeated("]", 600) + "}";
  EXPECT_EQ(parse(deep + "\n" + R"({"type":"tool"})").toolUses, 1) << "nesting without bounds is skipped";
}

TEST_F(TranscriptLineTest, CountsTokensOfTheFirstKeyThatHasAny) {
  struct Row {
    const char* sentence;
    const char* usage;
    const char* counts;  // in, out, cache read, cache creation
  };
  const Row rows[] = {
      {"every first key",
       R"("inputTokens":1,"outputTokens":2,"cacheReadInputTokens":3,"cacheCreationInputTokens":4)",
       "1 2 3 4"},
      {"every second key",
       R"("input_tokens":1,"output_tokens":2,"cache_read_input_tokens":3,"cache_creation_input_tokens":4)",
       "1 2 3 4"},
      {"the first key before the second",
       R"("inputTokens":50,"input_tokens":120,"outputTokens":-1,"output_tokens":7,"cacheReadInputTokens":8,)"
       R"("cache_read_input_tokens":9,"cacheCreationInputTokens":10,"cache_creation_input_tokens":11)",
       "50 -1 8 10"},
      {"the second key where the first gives 0",
       R"("inputTokens":0,"input_tokens":120,"outputTokens":"x","output_tokens":7,"cacheReadInputTokens":null,)"
       R"("cache_read_input_tokens":9,"cacheCreationInputTokens":0.9,"cache_creation_input_tokens":11)",
       "120 7 9 11"},
      {"texts and fractions", R"("input_tokens":"42","output_tokens":42.9,"cache_read_input_tokens":"42.0")",
       "42 42 0 0"},
  };
  for (const Row& row : rows) {
    LlmCallData read = call(R"({"type":"assistant","model":"m","usage":{)" + std::string(row.usage) + "}}");
    EXPECT_EQ(std::to_string(read.tokensIn) + " " + std::to_string(read.tokensOut) + " " +
                  std::to_string(read.cacheReadTokens) + " " + std::to_string(read.cacheCreationTokens),
              row.counts)
        << row.sentence;
  }
}

TEST_F(TranscriptLineTest, ChoosesAmongTheSourcesOfEachMember) {
  struct Row {
    const char* sentence;
    const char* members;
    const char* expected;  // model, tokens in, message id, timestamp
  };
  const Row rows[] = {
      {"model metadata goes before the rest",
       R"("modelMetadata":{"inputTokens":1},"usage":{"inputTokens":2},"message":{"usage":{"inputTokens":3}})",
       "|1||"},
      {"the line's usage goes before the message's",
       R"("usage":{"inputTokens":2},"message":{"usage":{"inputTokens":3}})", "|2||"},
      {"the message's usage serves when there is no other", R"("message":{"usage":{"inputTokens":3}})",
       "|3||"},
      {"or when the other is a list", R"("usage":[1],"message":{"usage":{"inputTokens":3}})", "|3||"},
      {"or when the other is empty", R"("usage":{},"message":{"usage":{"inputTokens":3}})", "|3||"},
      {"empty model metadata hides the line's usage",
       R"("modelMetadata":{},"usage":{"inputTokens":2},"message":{"usage":{"inputTokens":3}})", "|3||"},
      {"model metadata that is no object does not",
       R"("modelMetadata":"x","usage":{"inputTokens":2},"message":{"usage":{"inputTokens":3}})", "|2||"},
      {"a member of any name makes a usage not empty",
       R"("model":"m","usage":{"x":1},"message":{"usage":{"inputTokens":3}})", "m|0||"},
      {"the usage's model goes before the line's",
       R"("usage":{"model":"u"},"model":"l","message":{"model":"m"})", "u|0||"},
      {"the line's model goes before the message's", R"("model":"l","message":{"model":"m"})", "l|0||"},
      {"the message's model is the last", R"("message":{"model":"m"})", "m|0||"},
      {"models that are no strings are passed over",
       R"("usage":{"model":1},"model":null,"message":{"model":"m"})", "m|0||"},
      {"an empty model is a model", R"("usage":{"model":"","inputTokens":1},"model":"l")", "|1||"},
      {"the message's id goes before the line's", R"("model":"m","uuid":"u","message":{"id":"i"})", "m|0|i|"},
      {"the line's id serves when the message has none", R"("model":"m","uuid":"u","message":{"id":7})",
       "m|0|u|"},
      {"an empty id is an id", R"("model":"m","uuid":"u","message":{"id":""})", "m|0||"},
      {"the timestamp is taken as written", R"("model":"m","timestamp":" today\n")", "m|0|| today\n"},
      {"a timestamp that is no string is none", R"("model":"m","timestamp":1769850900)", "m|0||"},
  };
  for (const Row& row : rows) {
    LlmCallData read = call(R"({"type":"assistant",)" + std::string(row.members) + "}");
    EXPECT_EQ(read.model + "|" + std::to_string(read.tokensIn) + "|" + read.messageID + "|" + read.timestamp,
              row.expected)
        << row.sentence;
  }
}

TEST_F(TranscriptLineTest, TakesAMessagesContentOrTheTextOfItsBlocks) {
  const std::string long1000 = std::string(1000, 'r');
  struct Row {
    const char* sentence;
    std::string message;
    std::string text;
  };
  auto blocks = [](const std::string& list) { return R"({"content":[)" + list + "]}"; };
  auto result = [&](const std::string& content) {
    return blocks(R"({"type":"tool_result","content":)" + content + "}");
  };
  const Row rows[] = {
      {"nothing in an empty message", "{}", ""},
      {"a string without the white space at its ends", R"({"content":"\u2028 a\n b\t\r\n"})", "a\n b"},
      {"no content is nothing", R"({"role":"user"})", ""},
      {"content that is neither is nothing", R"({"content":{"type":"text","text":"a"}})", ""},
      {"an empty list is nothing", blocks(""), ""},
      {"a list with a string in it is nothing", blocks(R"({"type":"text","text":"a"},"b")"), ""},
      {"texts, one a line, each trimmed",
       blocks(R"({"type":"text","text":" a\n"},{"type":"text","text":"b "})"), "a\nb"},
      {"a blank text is left out", blocks(R"({"type":"text","text":" "},{"type":"text","text":"b"})"), "b"},
      {"a text that is no string is left out", blocks(R"({"type":"text","text":["a"]},{"type":"text"})"), ""},
      {"a tool use by its name", blocks(R"({"type":"tool_use","name":"Bash","text":"x"})"),
       "[tool_use:Bash]"},
      {"a tool use without a name", blocks(R"({"type":"tool_use","name":1},{"type":"tool_use"})"),
       "[tool_use:tool]\n[tool_use:tool]"},
      {"a tool use with an empty name", blocks(R"({"type":"tool_use","name":""})"), "[tool_use:]"},
      {"blocks of other types or none are left out",
       blocks(
           R"({"type":"thinking","text":"a"},{"text":"b"},{"type":1,"text":"c"},{"type":"Text","text":"d"})"),
       ""},
      {"a tool result's string, trimmed", result(R"(" found\n")"), "[tool_result] found"},
      {"a tool result's first 400 characters without a mark", result("\"" + long1000 + "\""),
       "[tool_result] " + long1000.substr(0, 400)},
      {"characters are counted, not bytes", result("\"" + repeated("é", 401) + "\""),
       "[tool_result] " + repeated("é", 400)},
      {"escapes count as what they stand for", result("\"" + repeated(R"(\u0061\n)", 300) + "\""),
       "[tool_result] " + repeated("a\n", 199) + "a"},
      {"white space before the text does not count", result("\"" + repeated(R"( \n)", 900) + long1000 + "\""),
       "[tool_result] " + long1000.substr(0, 400)},
      {"white space where the result is cut off goes at the very end",
       result("\"" + std::string(399, 'r') + "  x\""), "[tool_result] " + std::string(399, 'r')},
      {"an accent beyond the cut belongs to the last character",
       result("\"" + std::string(400, 'r') + "\u0301s\""),
       "[tool_result] " + std::string(400, 'r') + "\u0301"},
      {"a blank tool result is left out", result(R"(" \n")"), ""},
      {"a tool result's first text that is not blank",
       result(R"([{"type":"image","text":"i"},{"type":"text","text":" "},{"type":"text"},)"
              R"({"type":"text","text":"\tyes"},{"type":"text","text":"no"}])"),
       "[tool_result] yes"},
      {"a tool result's text is cut too", result(R"([{"type":"text","text":")" + long1000 + "\"}]"),
       "[tool_result] " + long1000.substr(0, 400)},
      {"a tool result's list with another value in it is left out",
       result(R"([{"type":"text","text":"a"},"b"])"), ""},
      {"a tool result without content is left out", blocks(R"({"type":"tool_result"})"), ""},
      {"every kind together",
       blocks(
           R"({"type":"text","text":"a"},{"type":"tool_result","content":"b"},{"type":"tool_use","name":"C"})"),
       "a\n[tool_result] b\n[tool_use:C]"},
  };
  JsonReader reader;
  for (const Row& row : rows) {
    EXPECT_EQ(Transcript::extractMessageText(reader.read(row.message)), row.text) << row.sentence;
    const std::string read =
        call(R"({"type":"assistant","model":"m","message":)" + row.message + "}").responsePreview;
    EXPECT_EQ(read, row.text) << row.sentence << ", in a file";
  }
}

TEST(IntFrom, ReadsNumbersAndDecimalTexts) {
  const std::pair<const char*, std::int64_t> rows[] = {
      {"42", 42},
      {"-3", -3},
      {"12.9", 12},
      {"-3.7", -3},
      {"0.9", 0},
      {"1e3", 1000},
      {"9223372036854775807", most},
      {"-9223372036854775808", -most - 1},
      {"9223372036854775808", 0},
      {"-9223372036854775808.0", -most - 1},
      {"1e19", 0},
      {"-1e19", 0},
      {"1e999", 0},
      {R"("42")", 42},
      {R"("+42")", 42},
      {R"("-42")", -42},
      {R"("007")", 7},
      {R"("9223372036854775807")", most},
      {R"("-9223372036854775808")", -most - 1},
      {R"("9223372036854775808")", 0},
      {R"("42.0")", 0},
      {R"(" 12")", 0},
      {R"("12 ")", 0},
      {R"("1e3")", 0},
      {R"("0x10")", 0},
      {R"("+-4")", 0},
      {R"("++4")", 0},
      {R"("+")", 0},
      {R"("-")", 0},
      {R"("")", 0},
      {R"("٤")", 0},
      {"true", 0},
      {"null", 0},
      {"[1]", 0},
      {R"({"a":1})", 0},
  };
  for (const auto& [text, expected] : rows) {
    auto value = Json::parse(text);
    ASSERT_TRUE(value) << text;
    EXPECT_EQ(Transcript::intFrom(*value), expected) << text;
  }
}

TEST(EstimateCost, PricesByTheExactModelName) {
  struct Row {
    const char* model;
    std::int64_t tokensIn, tokensOut;
    double cost;
  };
  const Row rows[] = {
      {"claude-opus-4-6", 1'000'000, 1'000'000, 90.0},
      {"claude-sonnet-4-5-20250929", 1'000'000, 1'000'000, 18.0},
      {"claude-haiku-4-5-20251001", 1000, 500, 0.0028},
      {"claude-opus-4-6-20250924", 0, 1'000'000, 75.0},
      {"opus", 2000, 0, 0.03},
      {"sonnet", 2000, 0, 0.006},
      {"haiku", 0, 1000, 0.004},
      {"Opus", 2000, 0, 0.006},
      {"claude-opus-4-6-20990101", 0, 1000, 0.015},
      {"opus ", 2000, 0, 0.006},
      {"", 0, 0, 0.0},
      {"haiku", -1000, 0, -0.0008},
      // The output's part is rounded before the input's is added to it, which is added before the division.
      {"claude-haiku-4-5-20251001", 7, 3, (4.0 * 3 + 0.8 * 7) / 1000000},
  };
  for (const Row& row : rows)
    EXPECT_EQ(Transcript::estimateCost(row.model, row.tokensIn, row.tokensOut), row.cost) << row.model;
}

}  // namespace
