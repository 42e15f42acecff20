#include <sys/stat.h>

#include <limits>

#include "Platform/Files.h"
#include "Tests/Support/TranscriptFixture.h"

namespace {

constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();

using TranscriptTest = TranscriptFixture;

// A line that records a call of that message, and the messages of a summary's calls.
std::string line(const std::string& id) {
  return R"({"type":"assistant","model":"m","uuid":")" + id + R"("})";
}
std::string idsOf(const TranscriptSummary& summary) {
  std::string ids;
  for (const LlmCallData& call : summary.calls)
    ids += call.messageID;
  return ids;
}

TEST_F(TranscriptTest, ReadsACallOfEveryMember) {
  TranscriptSummary summary = parse(
      R"({"type":"user","message":{"role":"user","content":"Why?"},"uuid":"u1"})"
      "\n"
      R"({"isSidechain":false,"message":{"model":"claude-haiku-4-5-20251001","id":"msg_1","type":"message",)"
      R"("role":"assistant","content":[{"type":"thinking","thinking":"Hm.","signature":"c2ln"},)"
      R"({"type":"text","text":" Because.\n"},{"type":"tool_use","id":"t","name":"Bash","input":{"a":[1]}}],)"
      R"("stop_reason":null,"usage":{"input_tokens":1000,"output_tokens":500,"cache_read_input_tokens":7,)"
      R"("cache_creation_input_tokens":9,"cache_creation":{"ephemeral_5m_input_tokens":9}}},)"
      R"("type":"assistant","uuid":"a1","timestamp":"2026-01-31T09:15:00.123Z"})"
      "\n"
      R"({"type":"summary","summary":"Reasons","leafUuid":"a1"})"
      "\n");
  LlmCallData expected;
  expected.model = "claude-haiku-4-5-20251001";
  expected.tokensIn = 1000;
  expected.tokensOut = 500;
  expected.cacheReadTokens = 7;
  expected.cacheCreationTokens = 9;
  expected.cost = 0.0028;
  expected.task = "claude_code_turn";
  expected.messageID = "msg_1";
  expected.promptPreview = std::string("Why?");
  expected.responsePreview = "Because.\n[tool_use:Bash]";
  expected.timestamp = "2026-01-31T09:15:00.123Z";
  TranscriptSummary whole;
  whole.calls = {expected};
  whole.totalTokensIn = 1000;
  whole.totalTokensOut = 500;
  whole.totalCost = 0.0028;
  whole.totalTurns = 1;
  whole.modelsUsed = {expected.model};
  EXPECT_EQ(summary, whole);
}

TEST_F(TranscriptTest, TakesTheLinesBehindTheOffset) {
  const std::string a = line("a"), b = line("b"), c = line("c"), both = a + "\n" + b + "\n";
  const auto length = static_cast<std::int64_t>(both.size()),
             second = static_cast<std::int64_t>(a.size()) + 1;
  struct Row {
    const char* sentence;
    std::string content;
    std::int64_t startOffset;
    std::string ids;
  };
  const Row rows[] = {
      {"offset 0 keeps the first line", both, 0, "ab"},
      {"a negative offset is none", both, -5, "ab"},
      {"an offset within a line discards the line", both, 1, "b"},
      {"an offset at the line feed discards nothing more", both, second - 1, "b"},
      {"an offset at a line's start discards that line", both, second, ""},
      {"an offset at the end leaves nothing", both, length, ""},
      {"an offset beyond the end takes the whole file but its first line", both, length + 1, "b"},
      {"so does the greatest offset", both, most, "b"},
      {"a last line without an end is a line", a + "\n" + b, 0, "ab"},
      {"a cut last line is none", a + "\n" + b.substr(0, 20), 0, "a"},
      {"an empty file has no calls", "", 0, ""},
      {"the line feed of a carriage return ends no line", a + "\r\n" + b + "\r\n", 0, ""},
      {"one object before a carriage return and line feed is a piece", a + "\r\n", 0, "a"},
      {"a second carriage return does not set the line feed free", a + "\n" + b + "\r\r\n" + c, 0, "a"},
      {"an offset behind the carriage return does", "x\r\n" + a, 2, "a"},
      {"the first piece lasts to a line feed of its own", a + "\r\n" + b + "\n" + c, 1, "c"},
      {"blank lines count for nothing", "\n \t\n" + a + "\n\n\n" + b + "\n", 0, "ab"},
      {"spaces and tabs around a line are no part of it", " \t" + a + "\t \n", 0, "a"},
      {"other white space is", "\u00A0" + a + "\n" + b, 0, "b"},
      {"what is no JSON object is skipped", "{\n[" + a + "]\n\"s\"\nnull\n" + a + "x\n" + b, 0, "b"},
      {"a fault in a member that is not read spoils its line",
       R"({"type":"assistant","uuid":"a","model":"m","x":[01]})"
       "\n" +
           b,
       0, "b"},
      {"so does an escape that is none",
       R"({"type":"assistant","uuid":"a","model":"m","x":"\q"})"
       "\n" +
           b,
       0, "b"},
      {"bytes that are not UTF-8 empty the whole", a + "\n{\"x\":\"\xFF\"}\n" + b, 0, ""},
      {"also between objects", a + "\n\xC3\n" + b, 0, ""},
      {"also in the piece that is discarded", "x\xFF\n" + a, 1, ""},
      {"also as the rest of a character that the offset cuts", "ä\n" + a, 1, ""},
      {"but not before the offset", "\xFF\n" + a + "\n" + b, 1, "ab"},
      {"a line longer than any buffer is read",
       a + "\n" + R"({"x":")" + std::string(3'000'000, 'x') + "\"," + b.substr(1) + "\n" + c, 0, "abc"},
  };
  for (const Row& row : rows)
    EXPECT_EQ(idsOf(parse(row.content, row.startOffset)), row.ids) << row.sentence;
}

TEST_F(TranscriptTest, FindsLinesWhereverTheChunksOfReadingEnd) {
  // A carriage return and its line feed, a line feed, and a character of three bytes, moved over the place.
  for (std::size_t chunk : {64u * 1024u, 128u * 1024u, 256u * 1024u, 1024u * 1024u}) {
    for (std::size_t shift = 0; shift < 12; ++shift) {
      std::string content =
          "\"" + std::string(chunk - 6 - shift, 'x') + "→\"\r\n1\n" + line("a") + "\n" + line("b");
      EXPECT_EQ(idsOf(parse(content)), "ab") << chunk << " " << shift;
    }
  }
}

TEST_F(TranscriptTest, GivesEachCallTheLatestPrompt) {
  auto user = [](const std::string& message) { return R"({"type":"user","message":)" + message + "}\n"; };
  const std::string answer = line("x") + "\n";
  TranscriptSummary summary = parse(
      answer + user(R"({"content":" first "})") + answer + answer + user(R"({"content":" \n"})") + answer +
      user(R"("second")") + answer + user(R"({"content":["second",{"type":"text","text":"second"}]})") +
      answer + user(R"({"content":[{"type":"tool_result","content":"found"}]})") + answer +
      user(R"({"content":"last"})"));
  std::string prompts;
  for (const LlmCallData& each : summary.calls)
    prompts += each.promptPreview.value() + "|";
  EXPECT_EQ(prompts, "|first|first|first|first|first|[tool_result] found|");
}

TEST_F(TranscriptTest, CutsPreviewsByUserPerceivedCharacters) {
  const std::string accented = "e\u0301";
  struct Row {
    const char* sentence;
    std::string text;
    std::string preview;
  };
  const Row rows[] = {
      {"2000 characters stay", std::string(2000, 'x'), std::string(2000, 'x')},
      {"of 2001 the last two make room", std::string(2001, 'x'), std::string(1999, 'x') + "…"},
      {"2000 accented characters stay", repeated(accented, 2000), repeated(accented, 2000)},
      {"of 2001 accented ones the last two make room", repeated(accented, 2001),
       repeated(accented, 1999) + "…"},
  };
  for (const Row& row : rows) {
    const std::string text = '"' + row.text + '"';
    for (const std::string& content : {text, R"([{"type":"text","text":)" + text + "}]"}) {
      std::string message = R"("message":{"model":"m","content":)" + content + "}}\n";
      TranscriptSummary summary = parse(R"({"type":"user",)" + message + R"({"type":"assistant",)" + message);
      ASSERT_EQ(summary.calls.size(), 1u);
      EXPECT_EQ(summary.calls[0].promptPreview.value(), row.preview) << row.sentence;
      EXPECT_EQ(summary.calls[0].responsePreview, row.preview) << row.sentence;
    }
  }
}

TEST_F(TranscriptTest, SumsInListOrderAndHoldsAtTheEndsOfTheRange) {
  auto opus = [](const std::string& in, const std::string& out, const std::string& model = "opus") {
    return R"({"type":"assistant","usage":{"model":")" + model + R"(","input_tokens":)" + in +
           R"(,"output_tokens":)" + out + "}}\n";
  };
  TranscriptSummary summary =
      parse(opus("1", "2", "b") + opus("3", "0", "a") + opus("5", "1", "b") + opus("7", "1", "") +
            R"({"type":"tool"})" + "\n" + R"({"type":"tool_use"})");
  EXPECT_EQ(summary.totalTokensIn, 16);
  EXPECT_EQ(summary.totalTokensOut, 4);
  EXPECT_EQ(summary.totalCost, 0.0 + 33.0 / 1e6 + 9.0 / 1e6 + 30.0 / 1e6 + 36.0 / 1e6);
  EXPECT_EQ(summary.totalTurns, 4);
  EXPECT_EQ(summary.modelsUsed, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(summary.toolUses, 2);

  summary = parse(opus("9223372036854775807", "-9223372036854775808") + opus("1", "-1"));
  EXPECT_EQ(summary.totalTokensIn, most);
  EXPECT_EQ(summary.totalTokensOut, std::numeric_limits<std::int64_t>::min());
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

}  // namespace
