#include "Hook/Transcript/Transcript.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <set>

#include "Platform/Files.h"
#include "Platform/Json/Json.h"
#include "Platform/Json/Utf8.h"
#include "Platform/Log.h"
#include "Platform/Text.h"

const std::string& SharedText::value() const {
  static const std::string empty;
  return text_ ? *text_ : empty;
}

namespace Transcript {

namespace {

constexpr Log::Category logger{"hook.transcript"};

constexpr Enough forPreview{2000};
constexpr Enough forToolResult{400};

std::string trimmed(std::string text) {
  const std::string_view inner = Text::trim(text, Text::Space::any);
  if (inner.size() == text.size()) return text;
  return std::string(inner);
}

// The string as far as is enough, without white space at its ends; empty when `value` is no string.
std::string trimmedText(JsonView value, Enough enough) {
  return trimmed(value.text(enough).value_or(""));
}

std::string preview(std::string text) {
  // A character has at least one byte.
  constexpr std::size_t most = forPreview.characters;
  if (text.size() <= most || Text::prefix(text, most).size() == text.size()) return text;
  return std::string(Text::prefix(text, most - 1)) + "…";
}

bool holdsOnlyObjects(JsonView list) {
  for (JsonView element : list.elements()) {
    if (!element.isObject()) return false;
  }
  return list.isList();
}

std::string toolResultText(JsonView content) {
  std::string found = trimmedText(content, forToolResult);
  if (!holdsOnlyObjects(content)) return found;
  for (JsonView part : content.elements()) {
    const auto [type, text] = part.members({"type", "text"});
    if (found.empty() && type.text() == "text") found = trimmedText(text, forToolResult);
  }
  return found;
}

// What a block contributes to its message's text; empty when nothing.
std::string blockText(JsonView block) {
  const auto [kind, text, name, content] = block.members({"type", "text", "name", "content"});
  const std::string type = kind.text().value_or("");
  if (type == "text") return trimmedText(text, forPreview);
  if (type == "tool_use") return "[tool_use:" + name.text().value_or("tool") + "]";
  if (type == "tool_result") {
    const std::string result = toolResultText(content);
    if (!result.empty())
      return std::string("[tool_result] ").append(Text::prefix(result, forToolResult.characters));
  }
  return {};
}

std::int64_t count(JsonView first, JsonView second) {
  const std::int64_t count = intFrom(Json::of(first));
  return count != 0 ? count : intFrom(Json::of(second));
}

// The first of the values that is a string, or the empty string.
std::string firstText(std::initializer_list<JsonView> values) {
  for (JsonView value : values) {
    if (auto text = value.text()) return *text;
  }
  return {};
}

// The call that an assistant line records; absent when it names no model and counts no tokens.
std::optional<LlmCallData> callFrom(JsonView line, JsonView message, const SharedText& promptPreview) {
  const auto [metadata, lineUsage, model, uuid, timestamp] =
      line.members({"modelMetadata", "usage", "model", "uuid", "timestamp"});
  const auto [id, messageModel, messageUsage] = message.members({"id", "model", "usage"});
  JsonView usage = metadata.isObject() ? metadata : lineUsage;
  if (usage.members().empty()) usage = messageUsage;
  // Each count has a name in camel case and, looked at when that counts nothing, one in snake case.
  const auto [usageModel, in, snakeIn, out, snakeOut, read, snakeRead, creation, snakeCreation] =
      usage.members({"model", "inputTokens", "input_tokens", "outputTokens", "output_tokens",
                     "cacheReadInputTokens", "cache_read_input_tokens", "cacheCreationInputTokens",
                     "cache_creation_input_tokens"});

  LlmCallData call;
  call.model = firstText({usageModel, model, messageModel});
  call.tokensIn = count(in, snakeIn);
  call.tokensOut = count(out, snakeOut);
  call.cacheReadTokens = count(read, snakeRead);
  call.cacheCreationTokens = count(creation, snakeCreation);
  if (call.model.empty() && call.tokensIn <= 0 && call.tokensOut <= 0) return std::nullopt;
  call.cost = estimateCost(call.model, call.tokensIn, call.tokensOut);
  call.messageID = firstText({id, uuid});
  call.promptPreview = promptPreview;
  call.responsePreview = preview(extractMessageText(message));
  call.timestamp = firstText({timestamp});
  return call;
}

void addTotals(TranscriptSummary& summary) {
  std::set<std::string> models;
  for (const LlmCallData& call : summary.calls) {
    summary.totalTokensIn = saturatingSum(summary.totalTokensIn, call.tokensIn);
    summary.totalTokensOut = saturatingSum(summary.totalTokensOut, call.tokensOut);
    summary.totalCost += call.cost;
    if (!call.model.empty()) models.insert(call.model);
  }
  summary.totalTurns = static_cast<std::int64_t>(summary.calls.size());
  summary.modelsUsed.assign(models.begin(), models.end());
}

// What the lines walked so far come to, but for the totals.
struct Walk {
  TranscriptSummary summary;
  SharedText promptPreview;  // of the latest user text

  void take(JsonView line) {
    const auto [kind, message] = line.members({"type", "message"});
    const std::string type = kind.text().value_or("");
    if (type == "user") {
      std::string prompt = extractMessageText(message);
      if (!prompt.empty()) promptPreview = preview(std::move(prompt));
    } else if (type == "assistant") {
      if (auto call = callFrom(line, message, promptPreview)) summary.calls.push_back(std::move(*call));
    } else if (type == "tool_use" || type == "tool") {
      ++summary.toolUses;
    }
  }
};

}  // namespace

std::int64_t saturatingSum(std::int64_t a, std::int64_t b) {
  std::int64_t sum = 0;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return a < 0 ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
}

TranscriptSummary parse(const std::string& path, std::int64_t startOffset) {
  if (!Files::exists(path)) {
    logger.error("transcript not found: " + path);
    return {};
  }
  Walk walk;
  JsonReader reader;
  bool discarding = startOffset >= 1;
  bool valid = true;
  bool read = Files::forEachLine(path, startOffset, [&](std::string_view piece) {
    const JsonView line = discarding ? JsonView() : reader.read(piece);
    walk.take(line);
    discarding = false;
    // The bytes are valid as a whole when every piece is, and what parses is.
    valid = line || Utf8::isValid(piece);
    return valid;
  });
  if (!read) logger.error("transcript read failed: " + path);
  if (!read || !valid) return {};
  addTotals(walk.summary);
  return std::move(walk.summary);
}

std::string extractMessageText(JsonView message) {
  const auto [content] = message.members({"content"});
  std::string text = trimmedText(content, forPreview);
  if (!holdsOnlyObjects(content)) return text;
  for (JsonView block : content.elements()) {
    std::string piece = blockText(block);
    if (text.empty())
      text = std::move(piece);
    else if (!piece.empty())
      text.append("\n").append(piece);
  }
  return trimmed(std::move(text));
}

std::int64_t intFrom(const Json& value) {
  if (auto integer = value.asInteger()) return *integer;
  if (auto number = value.asNumber()) {
    // 2^63 is the first double beyond the range; its negative is the least within it.
    return *number >= -0x1p63 && *number < 0x1p63 ? static_cast<std::int64_t>(*number) : 0;
  }
  const std::string* text = value.asText();
  if (!text) return 0;
  const char *first = text->data(), *const end = first + text->size();
  if (text->starts_with('+') && !text->starts_with("+-")) ++first;
  std::int64_t integer = 0;
  auto [last, error] = std::from_chars(first, end, integer);
  return error == std::errc() && last == end ? integer : 0;
}

double estimateCost(std::string_view model, std::int64_t tokensIn, std::int64_t tokensOut) {
  constexpr ModelCost otherwise{"", 3.0, 15.0};
  auto row = std::ranges::find(modelCosts, model, &ModelCost::model);
  const ModelCost& cost = row != modelCosts.end() ? *row : otherwise;
  return (cost.output * static_cast<double>(tokensOut) + cost.input * static_cast<double>(tokensIn)) /
         1000000;
}

}  // namespace Transcript
