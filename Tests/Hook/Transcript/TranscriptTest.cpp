#include "Hook/Transcript/Transcript.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Platform/Files.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"

namespace {

class TranscriptTest : public testing::Test {
 protected:
  TranscriptSummary parse(const std::string& content, std::int64_t startOffset = 0) {
    sandbox_.write(sandbox_.root() + "/transcript.jsonl", content);
    return Transcript::parse(sandbox_.root() + "/transcript.jsonl", startOffset);
  }

  // The messages of the calls in a text where "<m>" is a line of 43 bytes that records a call of message "m".
  std::string messages(std::string text, std::int64_t startOffset = 0) {
    text = replaced(replaced(text, "<", R"({"type":"assistant","model":"m","uuid":")"), ">", "\"}");
    std::string ids;
    for (const LlmCallData& call : parse(text, startOffset).calls)
      ids += call.messageID;
    return ids;
  }

  // The one call that an assistant line of those members records.
  LlmCallData call(const std::string& members) {
    const TranscriptSummary summary = parse(R"({"type":"assistant",)" + members + "}");
    EXPECT_EQ(summary.calls.size(), 1u) << members;
    return summary.calls.empty() ? LlmCallData() : summary.calls[0];
  }

  // The text of a message of that content, the same by either way to it.
  std::string text(const std::string& content) {
    const std::string message = R"({"content":)" + content + "}";
    JsonReader reader;
    const std::string extracted = Transcript::extractMessageText(reader.read(message));
    EXPECT_EQ(extracted, call(R"("model":"m","message":)" + message).responsePreview) << content;
    return extracted;
  }

  Sandbox sandbox_;
};

TEST_F(TranscriptTest, ReadsACallOfEveryMember) {
  const TranscriptSummary summary = parse(
      R"({"type":"user","message":{"role":"user","content":"Why?"},"uuid":"u1"}
{"isSidechain":false,"message":{"model":"claude-haiku-4-5-20251001","id":"msg_1","type":"message",)"
      R"("role":"assistant","content":[{"type":"thinking","thinking":"Hm.","signature":"c2ln"},)"
      R"({"type":"text","text":" Because.\n"},{"type":"tool_use","id":"t","name":"Bash","input":{"a":[1]}}],)"
      R"("stop_reason":null,"usage":{"input_tokens":1000,"output_tokens":500,"cache_read_input_tokens":7,)"
      R"("cache_creation_input_tokens":9,"cache_creation":{"ephemeral_5m_input_tokens":9}}},)"
      R"("type":"assistant","uuid":"a1","timestamp":"2026-01-31T09:15:00.123Z"}
{"type":"summary","summary":"Reasons","leafUuid":"a1"}
)");
  const std::string model = "claude-haiku-4-5-20251001", answer = "Because.\n[tool_use:Bash]";
  const std::string time = "2026-01-31T09:15:00.123Z", task = "claude_code_turn", prompt = "Why?";
  const LlmCallData expected{model, 1000, 500, 7, 9, 0.0028, task, "msg_1", prompt, answer, time};
  EXPECT_EQ(summary, (TranscriptSummary{{expected}, 1000, 500, 0.0028, 1, {model}, 0}));
}

TEST_F(TranscriptTest, TakesTheLinesBehindTheOffset) {
  // messages ¦ offset ¦ contents
  for (const auto& row : cases(2, R"(
      ab  ¦ 0  ¦ <a>␊<b>␊ ¦ <a>␊<b> ¦ ␊ ␉␊<a>␊␊␊<b>␊
      ab  ¦ -5 ¦ <a>␊<b>␊
      b   ¦ 1  ¦ <a>␊<b>␊
      b   ¦ 43 ¦ <a>␊<b>␊
      ∅   ¦ 44 ¦ <a>␊<b>␊
      ∅   ¦ 88 ¦ <a>␊<b>␊
      b   ¦ 89 ¦ <a>␊<b>␊
      b   ¦ 9223372036854775807 ¦ <a>␊<b>␊
      a   ¦ 0  ¦ <a>␊{"type":"assistant", ¦ ␠␉<a>␉ ␊ ¦ <a>␍␊ ¦ <a>␊<b>␍␍␊<c>
      a   ¦ 2  ¦ x␍␊<a>
      c   ¦ 1  ¦ <a>␍␊<b>␊<c>
      b   ¦ 0  ¦ «C2A0»<a>␊<b> ¦ {␊[<a>]␊"s"␊null␊<a>x␊<b>
      b   ¦ 0  ¦ {"type":"assistant","uuid":"a","model":"m","x":[01]}␊<b>
      b   ¦ 0  ¦ {"type":"assistant","uuid":"a","model":"m","x":"\q"}␊<b>
      ∅   ¦ 0  ¦ ∅ ¦ <a>␍␊<b>␍␊ ¦ <a>␊{"x":"«FF»"}␊<b> ¦ <a>␊«C3»␊<b>
      ∅   ¦ 1  ¦ x«FF»␊<a> ¦ ä␊<a>
      ab  ¦ 1  ¦ «FF»␊<a>␊<b>
      abc ¦ 0  ¦ <a>␊{"x":"«x×3000000»","type":"assistant","model":"m","uuid":"b"}␊<c>
      )"))
    EXPECT_EQ(messages(row[2], std::stoll(row[1])), row[0]) << row[1] << " " << row[2].substr(0, 99);
  // A carriage return and its line feed, a line feed and a character of three bytes, wherever a chunk ends.
  for (std::size_t chunk : {64u * 1024u, 128u * 1024u, 256u * 1024u, 1024u * 1024u}) {
    for (std::size_t shift = 0; shift < 12; ++shift)
      EXPECT_EQ(messages("\"" + std::string(chunk - 6 - shift, 'x') + "→\"\r\n1\n<a>\n<b>"), "ab") << shift;
  }
}

TEST_F(TranscriptTest, TellsLinesByTheirTypeAlone) {
  // calls and tool uses ¦ lines
  for (const auto& row : cases(1, R"(
    0 0 ¦ {"type":"user","model":"m"} ¦ {"type":"system","model":"m"} ¦ {"type":"Assistant","model":"m"}
    0 0 ¦ {"type":"tool ","model":"m"} ¦ {"type":["tool"],"model":"m"} ¦ {"model":"m"}
    0 0 ¦ {"message":{"type":"tool"}} ¦ {"type":"assistant"}
    0 0 ¦ {"type":"assistant","usage":{"cacheReadInputTokens":5}}
    0 0 ¦ {"type":"assistant","usage":{"input_tokens":-5,"output_tokens":-1}}
    0 1 ¦ {"type":"tool_use","model":"m"} ¦ {"type":"tool"} ¦ {"t\u0079p\u0065":"\u0074ool"}
    0 1 ¦ {"type":"tool","x":[[[[[{"type":"x"}]]]]]} ¦ {"type":"tool","x":«[×600»«]×600»}␊{"type":"tool"}
    1 0 ¦ {"type":"assistant","model":"m"} ¦ {"type":"tool","type":"assistant","model":"m"}
    1 0 ¦ {"type":"assistant","usage":{"input_tokens":1}} ¦ {"type":"assistant","usage":{"output_tokens":1}}
    1 0 ¦ {"type":"assistant","message":[],"model":"m"}
    1 0 ¦ {"type":"assistant","isApiErrorMessage":true,"message":{"model":"<synthetic>","content":[]}}
    )")) {
    const TranscriptSummary read = parse(row[1]);
    EXPECT_EQ(std::to_string(read.calls.size()) + " " + std::to_string(read.toolUses), row[0]) << row[1];
  }
}

TEST_F(TranscriptTest, ChoosesAmongTheSourcesOfEachMember) {
  // model, message, timestamp and tokens: in, out, read from the cache, written to it ¦ members
  for (const auto& row : cases(1, R"(
    |||1 0 0 0 ¦ "modelMetadata":{"inputTokens":1},"usage":{"inputTokens":2}
    |||2 0 0 0 ¦ "usage":{"inputTokens":2},"message":{"usage":{"inputTokens":3}}
    |||2 0 0 0 ¦ "modelMetadata":"x","usage":{"inputTokens":2},"message":{"usage":{"inputTokens":3}}
    |||3 0 0 0 ¦ "modelMetadata":{},"usage":{"inputTokens":2},"message":{"usage":{"inputTokens":3}}
    |||3 0 0 0 ¦ "usage":[1],"message":{"usage":{"inputTokens":3}} ¦ "message":{"usage":{"inputTokens":3}}
    |||3 0 0 0 ¦ "usage":{},"message":{"usage":{"inputTokens":3}}
    m|||0 0 0 0 ¦ "model":"m","usage":{"x":1},"message":{"usage":{"inputTokens":3}}
    u|||0 0 0 0 ¦ "usage":{"model":"u"},"model":"l","message":{"model":"m"}
    l|||0 0 0 0 ¦ "model":"l","message":{"model":"m"}
    m|||0 0 0 0 ¦ "message":{"model":"m"} ¦ "usage":{"model":1},"model":null,"message":{"model":"m"}
    |||1 0 0 0 ¦ "usage":{"model":"","inputTokens":1},"model":"l"
    m|i||0 0 0 0 ¦ "model":"m","uuid":"u","message":{"id":"i"}
    m|u||0 0 0 0 ¦ "model":"m","uuid":"u","message":{"id":7}
    m|||0 0 0 0 ¦ "model":"m","uuid":"u","message":{"id":""} ¦ "model":"m","timestamp":1769850900
    m|| today␊|0 0 0 0 ¦ "model":"m","timestamp":" today\n"
    |||1 2 3 0 ¦ "usage":{"inputTokens":1,"outputTokens":2,"cacheReadInputTokens":3}
    |||1 2 3 0 ¦ "usage":{"input_tokens":1,"output_tokens":2,"cache_read_input_tokens":3}
    |||5 -1 0 0 ¦ "usage":{"inputTokens":5,"input_tokens":12,"outputTokens":-1,"output_tokens":7}
    |||12 7 0 0 ¦ "usage":{"inputTokens":0,"input_tokens":12,"outputTokens":"x","output_tokens":7}
    m|||0 0 8 0 ¦ "model":"m","usage":{"cacheReadInputTokens":8,"cache_read_input_tokens":9}
    m|||0 0 9 0 ¦ "model":"m","usage":{"cacheReadInputTokens":null,"cache_read_input_tokens":9}
    m|||0 0 0 4 ¦ "model":"m","usage":{"cacheCreationInputTokens":4,"cache_creation_input_tokens":11}
    m|||0 0 0 11 ¦ "model":"m","usage":{"cacheCreationInputTokens":0.9,"cache_creation_input_tokens":11}
    |||42 3 0 0 ¦ "usage":{"input_tokens":"42","output_tokens":3.9,"cache_read_input_tokens":"42.0"}
    )")) {
    const LlmCallData read = call(row[1]);
    std::string shown = read.model + "|" + read.messageID + "|" + read.timestamp + "|";
    for (auto count : {read.tokensIn, read.tokensOut, read.cacheReadTokens, read.cacheCreationTokens})
      shown += std::to_string(count) + " ";
    EXPECT_EQ(shown, row[0] + " ") << row[1];
  }
}

TEST_F(TranscriptTest, TakesAMessagesContentOrTheTextOfItsBlocks) {
  // text ¦ contents
  for (const auto& row : cases(1, R"(
    ∅       ¦ {"type":"text","text":"a"} ¦ [] ¦ [{"type":"text","text":"a"},"b"] ¦ [{"type":"tool_result"}]
    ∅       ¦ [{"type":"text","text":["a"]},{"type":"text"}]
    ∅       ¦ [{"type":"thinking","text":"a"},{"text":"b"},{"type":1,"text":"c"},{"type":"Text","text":"d"}]
    a␊ b    ¦ "\u2028 a\n b\t\r\n"
    a␊b     ¦ [{"type":"text","text":" a\n"},{"type":"text","text":" "},{"type":"text","text":"b "}]
    b       ¦ [{"type":"text","text":" "},{"type":"text","text":"b"}]
    [tool_use:Bash] ¦ [{"type":"tool_use","name":"Bash","text":"x"}]
    [tool_use:tool]␊[tool_use:tool] ¦ [{"type":"tool_use","name":1},{"type":"tool_use"}]
    [tool_use:] ¦ [{"type":"tool_use","name":""}]
    a␊[tool_result] b     ¦ [{"type":"text","text":"a"},{"type":"tool_result","content":"b"}]
    [tool_result] b␊[tool_use:C] ¦ [{"type":"tool_result","content":"b"},{"type":"tool_use","name":"C"}]
    )"))
    EXPECT_EQ(text(row[1]), row[0]) << row[1];
  // text ¦ contents of a tool's result
  for (const auto& row : cases(1, R"(
    ∅              ¦ " \n" ¦ [{"type":"text","text":"a"},"b"]
    found          ¦ " found\n" ¦ [{"type":"image","text":"i"},{"type":"text","text":"found"}]
    yes            ¦ [{"type":"text","text":" "},{"type":"text"},{"type":"text","text":"\tyes"}]
    yes            ¦ [{"type":"text","text":"yes"},{"type":"text","text":"no"}]
    «r×400»        ¦ "«r×1000»" ¦ "« \n×900»«r×1000»" ¦ [{"type":"text","text":"«r×1000»"}]
    «r×400»«CC81»  ¦ "«r×400»«CC81»s"
    «r×399»        ¦ "«r×399»  x"
    «é×400»        ¦ "«é×401»"
    «a␊×199»a      ¦ "«\u0061\n×300»"
    )"))
    EXPECT_EQ(text(R"([{"type":"tool_result","content":)" + row[1] + "}]"),
              row[0].empty() ? "" : "[tool_result] " + row[0])
        << row[1];
}

TEST_F(TranscriptTest, GivesEachCallTheLatestPromptAndCutsPreviewsByUserPerceivedCharacters) {
  std::string content = "{\"type\":\"assistant\",\"model\":\"m\"}\n", expected = "|\n", previews;
  // a message, of the user and of the answer ¦ the prompt from then on ¦ the answer's text
  for (const auto& row : rows(R"(
    {} ¦ ∅ ¦ ∅
    {"content":" first "} ¦ first ¦ first
    {"role":"user"}       ¦ first ¦ ∅
    {"content":" \n"}     ¦ first ¦ ∅
    "second"              ¦ first ¦ ∅
    {"content":["second",{"type":"text","text":"second"}]} ¦ first ¦ ∅
    {"content":[{"type":"tool_result","content":"found"}]} ¦ [tool_result] found ¦ [tool_result] found
    {"content":"«x×2000»"} ¦ «x×2000» ¦ «x×2000»
    {"content":"«x×2001»"} ¦ «x×1999»… ¦ «x×1999»…
    {"content":"«e«CC81»×2000»"} ¦ «e«CC81»×2000» ¦ «e«CC81»×2000»
    {"content":"«e«CC81»×2001»"} ¦ «e«CC81»×1999»… ¦ «e«CC81»×1999»…
    {"content":[{"type":"text","text":"«x×2000»"}]} ¦ «x×2000» ¦ «x×2000»
    {"content":[{"type":"text","text":"«x×2001»"}]} ¦ «x×1999»… ¦ «x×1999»…
    {"content":[{"type":"text","text":"«e«CC81»×2000»"}]} ¦ «e«CC81»×2000» ¦ «e«CC81»×2000»
    {"content":[{"type":"text","text":"«e«CC81»×2001»"}]} ¦ «e«CC81»×1999»… ¦ «e«CC81»×1999»…
    )")) {
    for (const char* type : {"user", "assistant", "assistant"})
      content += R"({"type":")" + std::string(type) + R"(","model":"m","message":)" + row[0] + "}\n";
    expected += row[1] + "|" + row[2] + "\n" + row[1] + "|" + row[2] + "\n";
  }
  for (const LlmCallData& each : parse(content + R"({"type":"user","message":{"content":"last"}})").calls)
    previews += each.promptPreview.value() + "|" + each.responsePreview + "\n";
  EXPECT_EQ(previews, expected);
}

TEST_F(TranscriptTest, SumsInListOrderAndHoldsAtTheEndsOfTheRange) {
  TranscriptSummary summary =
      parse(R"({"type":"assistant","model":"b","usage":{"inputTokens":1,"outputTokens":2}}
{"type":"assistant","model":"a","usage":{"inputTokens":3,"outputTokens":0}}
{"type":"assistant","model":"b","usage":{"inputTokens":5,"outputTokens":1}}
{"type":"assistant","model":"","usage":{"inputTokens":7,"outputTokens":1}}
{"type":"tool"}
{"type":"tool_use"})");
  summary.calls.clear();
  const double cost = 0.0 + 33.0 / 1e6 + 9.0 / 1e6 + 30.0 / 1e6 + 36.0 / 1e6;
  EXPECT_EQ(summary, (TranscriptSummary{{}, 16, 4, cost, 4, {"a", "b"}, 2}));

  summary = parse(R"({"type":"assistant","usage":{"inputTokens":9223372036854775807,"outputTokens":-9e18}}
{"type":"assistant","usage":{"inputTokens":1,"outputTokens":-9e18}})");
  EXPECT_EQ(summary.totalTokensIn, 9223372036854775807);
  EXPECT_EQ(summary.totalTokensOut, -9223372036854775807 - 1);
}

TEST_F(TranscriptTest, LogsAFileThatCannotBeReadAndNothingElse) {
  const std::string none = sandbox_.root() + "/none", fifo = sandbox_.root() + "/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  parse("{\"x\":\"\xFF\"}\n[]\nx\n");
  for (const std::string& unreadable : {none, fifo, sandbox_.root()})
    EXPECT_EQ(Transcript::parse(unreadable, 0), TranscriptSummary()) << unreadable;
  std::string logged;
  for (const Json::Object& record : jsonLines(sandbox_.diagnostics()))
    logged += record.text("category") + " " + record.text("level") + " " + record.text("message") + "\n";
  EXPECT_EQ(logged, "hook.transcript error transcript not found: " + none +
                        "\nhook.transcript error transcript read failed: " + fifo +
                        "\nhook.transcript error transcript read failed: " + sandbox_.root() + "\n");
}

TEST(IntFrom, ReadsNumbersAndDecimalTexts) {
  // count ¦ values
  for (const auto& row : cases(1, R"(
      42   ¦ 42
      42   ¦ "42" ¦ "+42"
      -42  ¦ "-42"
      -3   ¦ -3 ¦ -3.7
      12   ¦ 12.9
      7    ¦ "007"
      1000 ¦ 1e3
      9223372036854775807  ¦ 9223372036854775807 ¦ "9223372036854775807"
      -9223372036854775808 ¦ -9223372036854775808 ¦ "-9223372036854775808" ¦ -9223372036854775808.0
      0    ¦ 0.9 ¦ 9223372036854775808 ¦ "9223372036854775808" ¦ 1e19 ¦ -1e19 ¦ 1e999
      0    ¦ "42.0" ¦ " 12" ¦ "12 " ¦ "1e3" ¦ "0x10" ¦ "+-4" ¦ "++4" ¦ "+" ¦ "-" ¦ "" ¦ "٤"
      0    ¦ true ¦ null ¦ [1] ¦ {"a":1}
      )"))
    EXPECT_EQ(std::to_string(Transcript::intFrom(Json::parse(row[1]).value())), row[0]) << row[1];
}

TEST(EstimateCost, PricesByTheExactModelName) {
  // tokens in ¦ tokens out ¦ cost ¦ models; at 9 and 2 each product is rounded before the sum
  for (const auto& row : cases(3, R"(
      1000000 ¦ 1000000 ¦ 90      ¦ claude-opus-4-6 ¦ claude-opus-4-6-20250924 ¦ opus
      1000000 ¦ 1000000 ¦ 18      ¦ claude-sonnet-4-5-20250929 ¦ sonnet
      1000000 ¦ 1000000 ¦ 18      ¦ Opus ¦ opus␠ ¦ claude-opus-4-6-20990101 ¦ ∅
      1000    ¦ 500     ¦ 0.0028  ¦ claude-haiku-4-5-20251001 ¦ haiku
      9       ¦ 2       ¦ 1.5199999999999998e-05 ¦ claude-haiku-4-5-20251001
      -1000   ¦ 0       ¦ -0.0008 ¦ haiku
      )"))
    EXPECT_EQ(Transcript::estimateCost(row[3], std::stoll(row[0]), std::stoll(row[1])), std::stod(row[2]))
        << row[3];
}

}  // namespace
