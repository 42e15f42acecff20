// Writes transcripts of ordinary shape. Most of such a transcript's bytes are what tools returned, twice (as
// the message's block and as the agent's own record), then thoughts with their signatures; every line carries
// an envelope of identifiers.
#pragma once

#include <cstdint>
#include <fstream>
#include <random>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Json/Json.h"

class TranscriptAuthor {
 public:
  // Every line bears this moment.
  explicit TranscriptAuthor(std::string moment) : moment_(std::move(moment)) {}

  // Writes a transcript of at least that size, made of whole turns. Returns its size in bytes.
  std::int64_t write(const std::string& path, std::int64_t size) {
    std::ofstream out(path, std::ios::binary);
    std::int64_t written = 0;
    while (written < size) {
      const std::string lines = turn();
      written += static_cast<std::int64_t>(lines.size());
      out << lines;
    }
    return written;
  }

  // The lines of one turn: a prompt, some rounds of thought, remark, tool use and its result, an answer.
  std::string turn() {
    std::string lines = line("user", {{"message", message("user", sentences(200))},
                                      {"thinkingMetadata", Json::Object{{"maxThinkingTokens", 31999}}},
                                      {"todos", Json::Array{}}});
    for (auto rounds = below(12) + 2; rounds > 0; --rounds)
      lines += round();
    return lines + assistantLine({{"type", "text"}, {"text", sentences(900)}}) + snapshot();
  }

 private:
  std::uint64_t below(std::uint64_t bound) { return random_() % bound; }

  std::string identifier(std::size_t length, std::string_view alphabet = "0123456789abcdef") {
    std::string text;
    while (text.size() < length)
      text += alphabet[below(alphabet.size())];
    return text;
  }

  // Some multiple of `typical` bytes of prose or source code: quotes, line breaks and tabs as in either, and
  // now and then a character beyond ASCII.
  std::string sentences(std::size_t typical) {
    static constexpr std::string_view words[] = {
        "the ",     "value ",   "of the ",     "reading ", "is ",      "carried ", "over, ", "so that ",
        "return ",  "const ",   "index ",      "(",        ") ",       "{\n\t",    "}\n",    "\"name\": ",
        "= ",       "nothing ", "is lost ",    "when ",    "a ",       "line\n",   "ends; ", "// see ",
        "below.\n", "std::",    "string ",     "while ",   "waiting ", "for ",     "the ",   "answer\n",
        "-> ",      "42, ",     "0x1f, ",      "— ",       "→ ",       "naïve ",   "if ",    "else ",
        "import ",  "from ",    "'./unit';\n", "\x1b[1m",  "\\d+ ",
    };
    std::string text;
    for (auto size = typical / 4 + below(typical * 3 / 2); text.size() < size;)
      text += words[below(std::size(words))];
    return text;
  }

  static Json::Object message(std::string_view role, Json content) {
    return {{"role", role}, {"content", std::move(content)}};
  }

  // Files are short for the most part and long now and then.
  std::string result() { return sentences(below(8) == 0 ? 24'000 : 2'000); }

  std::string round() {
    std::string content = result(), toolUse = "toolu_" + identifier(24);
    std::string lines = assistantLine({{"type", "thinking"},
                                       {"thinking", sentences(700)},
                                       {"signature", identifier(600, "ABCDEFGHIJabcdefghij0123456789+/")}});
    if (below(3) == 0) lines += assistantLine({{"type", "text"}, {"text", sentences(200)}});
    lines += assistantLine({{"type", "tool_use"},
                            {"id", toolUse},
                            {"name", "Read"},
                            {"input", Json::Object{{"file_path", "/srv/project/source/" + identifier(12)},
                                                   {"old_string", sentences(300)},
                                                   {"new_string", sentences(300)}}}});
    lines += line("progress", {{"data", Json::Object{{"type", "hook_progress"},
                                                     {"hookEvent", "PreToolUse"},
                                                     {"hookName", "PreToolUse:Read"},
                                                     {"command", "/usr/local/bin/guard --check"}}},
                               {"toolUseID", toolUse},
                               {"parentToolUseID", toolUse}});
    Json::Object block{
        {"tool_use_id", toolUse}, {"type", "tool_result"}, {"content", content}, {"is_error", false}};
    Json::Object file{
        {"filePath", "/srv/project/source/unit"}, {"content", content}, {"numLines", 80}, {"startLine", 1}};
    lines += line("user", {{"message", message("user", Json::Array{std::move(block)})},
                           {"toolUseResult", Json::Object{{"type", "text"}, {"file", std::move(file)}}},
                           {"sourceToolAssistantUUID", identifier(36)}});
    return lines;
  }

  std::string assistantLine(Json::Object block) {
    Json::Object usage{{"input_tokens", static_cast<std::int64_t>(below(20))},
                       {"cache_creation_input_tokens", static_cast<std::int64_t>(below(9000))},
                       {"cache_read_input_tokens", static_cast<std::int64_t>(below(90'000))},
                       {"cache_creation", Json::Object{{"ephemeral_5m_input_tokens", 0}}},
                       {"output_tokens", static_cast<std::int64_t>(below(3000))},
                       {"service_tier", "standard"}};
    Json::Object body = message("assistant", Json::Array{std::move(block)});
    body.set("model", "claude-opus-4-6");
    body.set("id", "msg_" + identifier(24));
    body.set("type", "message");
    body.set("stop_reason", nullptr);
    body.set("stop_sequence", nullptr);
    body.set("usage", std::move(usage));
    return line("assistant", {{"message", std::move(body)}, {"requestId", "req_" + identifier(24)}});
  }

  std::string line(std::string_view type, Json::Object members) {
    members.set("type", type);
    members.set("parentUuid", identifier(36));
    members.set("isSidechain", false);
    members.set("userType", "external");
    members.set("cwd", "/srv/project");
    members.set("sessionId", "3b0f4a52-8d3c-4f0e-9c55-0c6f2b1d7a90");
    members.set("version", "2.1.0");
    members.set("gitBranch", "main");
    members.set("uuid", identifier(36));
    members.set("timestamp", moment_);
    return written(std::move(members));
  }

  // As the agents write it, with slashes that are not escaped.
  static std::string written(Json::Object members) {
    std::string text = Json(std::move(members)).compact();
    for (auto at = text.find("\\/"); at != text.npos; at = text.find("\\/", at + 1))
      text.erase(at, 1);
    return text + "\n";
  }

  std::string snapshot() {
    Json::Object state{{"messageId", identifier(36)}, {"trackedFileBackups", Json::Object{}}};
    return written({{"type", "file-history-snapshot"}, {"snapshot", std::move(state)}});
  }

  std::string moment_;
  std::mt19937_64 random_{20260131};
};
