#include "Hook/Transcript.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <set>

#include "Platform/Files.h"
#include "Platform/Log.h"
#include "Platform/Text.h"
#include "Platform/Utf8.h"

namespace Transcript {

namespace {

constexpr std::size_t previewLength = 2000;    // characters
constexpr std::size_t toolResultLength = 400;  // characters

// All that is read of a line. What else lines carry (the whole files that tools have read, thoughts,
// signatures) is most of their bytes.
constexpr Json::Selection resultMembers[] = {{"type"}, {"text", {}, toolResultLength}};
constexpr Json::Selection blockMembers[] = {
    {"type"}, {"text", {}, previewLength}, {"name"}, {"content", resultMembers, toolResultLength}};
constexpr Json::Selection messageMembers[] = {
    {"id"}, {"model"}, {"usage"}, {"content", blockMembers, previewLength}};
constexpr Json::Selection lineMembers[] = {
    {"type"}, {"message", messageMembers}, {"modelMetadata"}, {"usage"}, {"model"}, {"uuid"}, {"timestamp"},
};

const Json::Object* objectIn(const Json::Object& object, std::string_view key) {
  const Json* value = object.find(key);
  return value ? value->asObject() : nullptr;
}

std::string_view trimmed(std::string_view text) {
  return Text::trim(text, Text::Space::any);
}

std::string preview(std::string_view text) {
  // A character has at least one byte.
  if (text.size() <= previewLength || Text::prefix(text, previewLength).size() == text.size())
    return std::string(text);
  return std::string(Text::prefix(text, previewLength - 1)) + "…";
}

std::string_view toolResultText(const Json::Object& block) {
  const Json* content = block.find("content");
  if (!content) return {};
  if (content->asText()) return trimmed(*content->asText());
  if (const Json::Array* parts = content->asObjects()) {
    for (const Json& part : *parts) {
      std::string_view text = trimmed(part.asObject()->text("text"));
      if (part.asObject()->text("type") == "text" && !text.empty()) return text;
    }
  }
  return {};
}

// What a block contributes to its message's text; empty when nothing.
std::string blockText(const Json::Object& block) {
  const std::string& type = block.text("type");
  if (type == "text") return std::string(trimmed(block.text("text")));
  if (type == "tool_use") return "[tool_use:" + block.optionalText("name").value_or("tool") + "]";
  if (type == "tool_result") {
    std::string_view text = Text::prefix(toolResultText(block), toolResultLength);
    if (!text.empty()) return "[tool_result] " + std::string(text);
  }
  return {};
}

std::int64_t count(const Json::Object& usage, std::string_view key, std::string_view otherKey) {
  std::int64_t first = intFrom(usage.find(key));
  return first != 0 ? first : intFrom(usage.find(otherKey));
}

const Json::Object& usageOf(const Json::Object& line, const Json::Object& message) {
  const Json::Object* usage = objectIn(line, "modelMetadata");
  if (!usage) usage = &line.object("usage");
  return usage->empty() ? message.object("usage") : *usage;
}

// The call that an assistant line records; absent when it names no model and counts no tokens.
std::optional<LlmCallData> callFrom(const Json::Object& line, const std::string& promptPreview) {
  const Json::Object& message = line.object("message");
  const Json::Object& usage = usageOf(line, message);
  auto model = usage.optionalText("model");
  if (!model) model = line.optionalText("model");

  LlmCallData call;
  call.model = model ? *model : message.text("model");
  call.tokensIn = count(usage, "inputTokens", "input_tokens");
  call.tokensOut = count(usage, "outputTokens", "output_tokens");
  call.cacheReadTokens = count(usage, "cacheReadInputTokens", "cache_read_input_tokens");
  call.cacheCreationTokens = count(usage, "cacheCreationInputTokens", "cache_creation_input_tokens");
  if (call.model.empty() && call.tokensIn <= 0 && call.tokensOut <= 0) return std::nullopt;
  call.cost = estimateCost(call.model, call.tokensIn, call.tokensOut);
  auto messageID = message.optionalText("id");
  call.messageID = messageID ? *messageID : line.text("uuid");
  call.promptPreview = promptPreview;
  call.responsePreview = preview(extractMessageText(message));
  call.timestamp = line.text("timestamp");
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
  std::string promptPreview;  // of the latest user text

  void take(const Json::Object& line) {
    const std::string& type = line.text("type");
    if (type == "user") {
      std::string prompt = extractMessageText(line.object("message"));
      if (!prompt.empty()) promptPreview = preview(prompt);
    } else if (type == "assistant") {
      if (auto call = callFrom(line, promptPreview)) summary.calls.push_back(std::move(*call));
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
    Log::error("hook.transcript", "transcript not found: " + path);
    return {};
  }
  Walk walk;
  bool discarding = startOffset >= 1;
  bool valid = true;
  bool read = Files::forEachLine(path, startOffset, [&](std::string_view piece) {
    auto line = discarding ? std::nullopt : Json::parseObject(piece, lineMembers);
    if (line) walk.take(*line);
    discarding = false;
    // The bytes are valid as a whole when every piece is, and what parses is.
    valid = line || Utf8::isValid(piece);
    return valid;
  });
  if (!read) Log::error("hook.transcript", "transcript read failed: " + path);
  if (!read || !valid) return {};
  addTotals(walk.summary);
  return std::move(walk.summary);
}

std::string extractMessageText(const Json::Object& message) {
  const Json* content = message.find("content");
  if (!content) return "";
  if (content->asText()) return std::string(trimmed(*content->asText()));
  const Json::Array* blocks = content->asObjects();
  if (!blocks) return "";
  std::string text;
  for (const Json& block : *blocks) {
    std::string piece = blockText(*block.asObject());
    if (!text.empty() && !piece.empty()) text += '\n';
    text += piece;
  }
  return std::string(trimmed(text));
}

std::int64_t intFrom(const Json* value) {
  if (!value) return 0;
  if (auto integer = value->asInteger()) return *integer;
  if (auto number = value->asNumber()) {
    // 2^63 is the first double beyond the range; its negative is the least within it.
    return *number >= -0x1p63 && *number < 0x1p63 ? static_cast<std::int64_t>(*number) : 0;
  }
  const std::string* text = value->asText();
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
