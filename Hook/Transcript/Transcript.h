// Reads the agent's own transcript, a JSON Lines file that the agent appends to while the session runs, and
// turns what was appended since a byte offset into LLM call records and totals, priced by the model table.
//
// It never writes, keeps nothing between calls and never fails: a file that is missing or unreadable is
// logged and gives the empty summary, as do bytes that are not UTF-8 as a whole; a line that is not a JSON
// object is skipped; a member of the wrong type counts as missing.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Json/Json.h"
#include "Platform/Json/JsonReader.h"

// A text that many hold and none changes: copies cost nothing, equal is who reads the same.
class SharedText {
 public:
  SharedText() = default;  // empty
  SharedText(std::string text) : text_(std::make_shared<const std::string>(std::move(text))) {}
  const std::string& value() const;
  bool operator==(const SharedText& other) const { return value() == other.value(); }

 private:
  std::shared_ptr<const std::string> text_;
};

// One LLM call: one assistant line of the transcript. Agents write a line per content block, so neighbours
// may share a message.
struct LlmCallData {
  std::string model;  // as written in the transcript, empty when none
  std::int64_t tokensIn = 0;
  std::int64_t tokensOut = 0;
  std::int64_t cacheReadTokens = 0;      // input tokens read from the prompt cache
  std::int64_t cacheCreationTokens = 0;  // input tokens written to the prompt cache
  double cost = 0;                       // estimated, in US dollars
  std::string_view task = "claude_code_turn";
  std::string messageID;        // empty when none
  SharedText promptPreview;     // latest user message before this line, at most 2000 characters
  std::string responsePreview;  // this assistant message, at most 2000 characters
  std::string timestamp;        // as written in the transcript, empty when none

  bool operator==(const LlmCallData&) const = default;
};

struct TranscriptSummary {
  std::vector<LlmCallData> calls;  // in file order
  std::int64_t totalTokensIn = 0;  // sums over `calls`, held at the ends of the 64-bit range
  std::int64_t totalTokensOut = 0;
  double totalCost = 0;                 // sum over `calls` in list order
  std::int64_t totalTurns = 0;          // number of `calls`
  std::vector<std::string> modelsUsed;  // distinct and not empty, sorted by bytes
  std::int64_t toolUses = 0;            // lines of type "tool_use" or "tool"

  bool operator==(const TranscriptSummary&) const = default;
};

namespace Transcript {

// The calls that the file at `path` records from byte `startOffset` on. An offset of 1 or more discards
// everything up to and including the first line feed; an offset beyond the file's end counts from its start
// instead.
TranscriptSummary parse(const std::string& path, std::int64_t startOffset);

// The text of a message: its string content, or the text, tool-use and tool-result blocks of its list of
// blocks, a line each, all as far as is enough for a preview. Empty when there is none.
std::string extractMessageText(JsonView message);

// A count out of `value`: a number truncated toward zero, or a string of decimal digits with an optional
// sign. 0 for everything else, for what does not fit 64 bits, and for null (no such member).
std::int64_t intFrom(const Json& value);

// US dollars per million tokens.
struct ModelCost {
  std::string_view model;
  double input;
  double output;
};

inline constexpr std::array<ModelCost, 7> modelCosts{{
    {"claude-opus-4-6", 15.0, 75.0},
    {"claude-sonnet-4-5-20250929", 3.0, 15.0},
    {"claude-haiku-4-5-20251001", 0.8, 4.0},
    {"claude-opus-4-6-20250924", 15.0, 75.0},
    {"opus", 15.0, 75.0},
    {"sonnet", 3.0, 15.0},
    {"haiku", 0.8, 4.0},
}};

// US dollars, neither rounded nor clamped. A model without a row of exactly its name has the default price.
double estimateCost(std::string_view model, std::int64_t tokensIn, std::int64_t tokensOut);

// `a` + `b`, held at the ends of the 64-bit range.
std::int64_t saturatingSum(std::int64_t a, std::int64_t b);

}  // namespace Transcript
