#include "Shared/HardwareID.h"

#include <optional>

#include "Platform/Files.h"
#include "Platform/Json/Utf8.h"
#include "Platform/Process.h"
#include "Platform/Text.h"

namespace HardwareID {

namespace {

constexpr const char* tool = "/usr/sbin/ioreg";
constexpr const char* machineId = "/etc/machine-id";

std::string lookUp() {
  if (Files::exists(tool)) {
    return uuidIn(Process::run(tool, {"-rd1", "-c", "IOPlatformExpertDevice"}).value_or(""));
  }
  return idIn(Files::read(machineId).value_or(""));
}

// The text between the first `= "` and the quote after it; absent unless both are there.
std::optional<std::string_view> quotedValue(std::string_view line) {
  constexpr std::string_view opening = "= \"";
  const auto begin = line.find(opening);
  if (begin == line.npos) return std::nullopt;
  const auto value = line.substr(begin + opening.size());
  const auto end = value.find('"');
  if (end == value.npos) return std::nullopt;
  return value.substr(0, end);
}

}  // namespace

const std::string& uuid() {
  static const std::string cached = lookUp();
  return cached;
}

std::string idIn(std::string_view machineIdFile) {
  const auto line = Text::takePart(machineIdFile, "\n");
  return line == "uninitialized" ? "" : std::string(line);
}

std::string uuidIn(std::string_view ioregOutput) {
  if (!Utf8::isValid(ioregOutput)) return "";
  while (!ioregOutput.empty()) {
    const auto line = Text::takePart(ioregOutput, "\n");
    if (line.find("IOPlatformUUID") == line.npos) continue;
    if (const auto value = quotedValue(line)) return std::string(*value);
  }
  return "";
}

}  // namespace HardwareID
