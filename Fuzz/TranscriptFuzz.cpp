// Reads arbitrary bytes as a transcript from an arbitrary offset, and compares the result with a plain
// reading: the whole file in memory, every line built with all its members.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <set>

#include "Hook/Transcript/Transcript.h"
#include "Platform/Json/Utf8.h"
#include "Platform/Text.h"

namespace {

std::vector<std::string_view> pieces(std::string_view text) {
  std::vector<std::string_view> all;
  std::size_t start = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\n' || (at > 0 && text[at - 1] == '\r')) continue;
    all.push_back(text.substr(start, at - start));
    start = at + 1;
  }
  all.push_back(text.substr(start));
  return all;
}

std::string trimmed(std::string_view text) {
  return std::string(Text::trim(text, Text::Space::any));
}

std::string pieceOf(const Json::Object& block) {
  const std::string& type = block.text("type");
  if (type == "text") return trimmed(block.text("text"));
  if (type == "tool_use") return "[tool_use:" + block.optionalText("name").value_or("tool") + "]";
  std::string result = trimmed(block.text("content"));
  const Json* content = block.find("content");
  const Json::Array* parts = content ? content->asObjects() : nullptr;
  for (std::size_t i = 0; parts && i < parts->size() && result.empty(); ++i) {
    const Json::Object& part = *(*parts)[i].asObject();
    if (part.text("type") == "text") result = trimmed(part.text("text"));
  }
  return type == "tool_result" && !result.empty() ? "[tool_result] " + std::string(Text::prefix(result, 400))
                                                  : "";
}

std::string textOf(const Json::Object& message) {
  std::string text = message.text("content");
  const Json* content = message.find("content");
  const Json::Array* blocks = content ? content->asObjects() : nullptr;
  for (std::size_t i = 0; blocks && i < blocks->size(); ++i) {
    std::string piece = pieceOf(*(*blocks)[i].asObject());
    if (!piece.empty()) text += (text.empty() ? "" : "\n") + piece;
  }
  return trimmed(text);
}

std::string cut(const std::string& text) {
  std::string_view first = Text::prefix(text, 2000);
  return first.size() == text.size() ? text : std::string(Text::prefix(text, 1999)) + "\u2026";
}

std::optional<LlmCallData> call(const Json::Object& line) {
  const Json::Object& message = line.object("message");
  const Json* metadata = line.find("modelMetadata");
  Json::Object usage = metadata && metadata->asObject() ? *metadata->asObject() : line.object("usage");
  if (usage.empty()) usage = message.object("usage");
  auto tokens = [&](const char* key, const char* otherKey) {
    const auto read = [&](const char* name) {
      const Json* value = usage.find(name);
      return value ? Transcript::intFrom(*value) : 0;
    };
    return read(key) ? read(key) : read(otherKey);
  };
  LlmCallData call;
  for (const Json::Object* holder : {&message, &line, static_cast<const Json::Object*>(&usage)})
    call.model = holder->optionalText("model").value_or(call.model);
  call.tokensIn = tokens("inputTokens", "input_tokens");
  call.tokensOut = tokens("outputTokens", "output_tokens");
  call.cacheReadTokens = tokens("cacheReadInputTokens", "cache_read_input_tokens");
  call.cacheCreationTokens = tokens("cacheCreationInputTokens", "cache_creation_input_tokens");
  if (call.model.empty() && call.tokensIn <= 0 && call.tokensOut <= 0) return std::nullopt;
  call.cost = Transcript::estimateCost(call.model, call.tokensIn, call.tokensOut);
  call.messageID = message.optionalText("id").value_or(line.text("uuid"));
  call.responsePreview = cut(textOf(message));
  call.timestamp = line.text("timestamp");
  return call;
}

void add(std::int64_t& sum, std::int64_t count) {
  __int128 exact = __int128{sum} + count;
  sum = static_cast<std::int64_t>(std::clamp<__int128>(exact, std::numeric_limits<std::int64_t>::min(),
                                                       std::numeric_limits<std::int64_t>::max()));
}

TranscriptSummary plainReading(std::string_view content, std::int64_t startOffset) {
  if (startOffset >= 1 && startOffset <= static_cast<std::int64_t>(content.size()))
    content.remove_prefix(static_cast<std::size_t>(startOffset));
  TranscriptSummary summary;
  if (!Utf8::isValid(content)) return summary;
  auto all = pieces(content);
  if (startOffset >= 1) all.erase(all.begin());
  std::string prompt;
  std::set<std::string> models;
  for (std::string_view piece : all) {
    auto line = Json::parseObject(Text::trim(piece, Text::Space::blanks));
    if (!line) continue;
    std::string type = line->text("type");
    if (type == "user") {
      std::string text = textOf(line->object("message"));
      if (!text.empty()) prompt = cut(text);
    }
    if (type == "tool_use" || type == "tool") ++summary.toolUses;
    auto made = type == "assistant" ? call(*line) : std::nullopt;
    if (!made) continue;
    made->promptPreview = prompt;
    add(summary.totalTokensIn, made->tokensIn);
    add(summary.totalTokensOut, made->tokensOut);
    summary.totalCost += made->cost;
    ++summary.totalTurns;
    if (!made->model.empty()) models.insert(made->model);
    summary.calls.push_back(*made);
  }
  summary.modelsUsed.assign(models.begin(), models.end());
  return summary;
}

}  // namespace

// The first two bytes say where reading starts: from one before the file to a few bytes behind it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int file = ::memfd_create("transcript", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  if (size < 2) return 0;
  std::string_view content(reinterpret_cast<const char*>(data) + 2, size - 2);
  auto startOffset = static_cast<std::int64_t>((data[0] | data[1] << 8) % (content.size() + 5)) - 1;
  if (::ftruncate(file, 0) != 0 ||
      ::pwrite(file, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size()))
    std::abort();
  if (Transcript::parse(path, startOffset) != plainReading(content, startOffset)) std::abort();
  return 0;
}
