#include "Hook/Agents/HookFile.h"

#include "Platform/Files.h"
#include "Platform/Paths.h"
#include "Platform/SmallFile.h"
#include "Platform/Text.h"

namespace HookFile {
namespace {

constexpr std::string_view executableName = "quib-hook";
constexpr std::string_view notRegular = "it is not a regular file";
constexpr int maxBackups = 100;

// Empty, which no file's path is, when there is no home directory.
std::string path(const File& file) {
  return Paths::inHome(file.place).value_or("");
}

// Why no command line can name the executable; empty when one can.
std::string_view obstacle(const std::string& binaryPath) {
  if (binaryPath.empty()) return "the path of this executable is unknown";
  if (Text::contains(binaryPath, "'")) return "the path of this executable contains a single quote";
  const auto written = Json::parse(Json(binaryPath).compact());
  return written == Json(binaryPath) ? "" : "the path of this executable is not UTF-8";
}

}  // namespace

std::optional<std::string> command(const File& file, const std::string& binaryPath) {
  const std::string_view why = path(file).empty() ? "there is no home directory" : obstacle(binaryPath);
  if (why.empty()) return "'" + binaryPath + "'" + std::string(file.options);
  refuse(file, why);
  return std::nullopt;
}

Json::Object registered(Json::Object hooks, std::string_view events, const Json& entry) {
  while (!events.empty()) {
    const std::string_view event = Text::takePart(events, " ");
    Json::Array entries = hooks.list(event);
    entries.push_back(entry);
    hooks.set(event, std::move(entries));
  }
  return hooks;
}

bool exists(const File& file) {
  return Files::exists(path(file));
}

std::optional<std::string> read(const File& file) {
  return SmallFile::read(path(file));
}

bool backUp(const File& file, const std::optional<std::string>& text) {
  const auto place = Files::endOfLinks(path(file));
  const auto mode = place ? Files::mode(*place) : std::nullopt;
  if (!mode) return refuse(file, notRegular);
  const std::string first = path(file) + ".bak";
  std::string copy = first;
  for (int number = 2; Files::exists(copy); ++number) {
    if (number > maxBackups) return refuse(file, "too many backups of it are kept");
    copy = first + "." + std::to_string(number);
  }
  const auto error = text ? Files::write(copy, *text, *mode) : Files::move(*place, copy);
  return !error || refuse(file, "the present file cannot be backed up: " + error.message());
}

bool replace(const File& file, std::string_view text) {
  const auto place = Files::endOfLinks(path(file));
  if (!place) return refuse(file, "Too many levels of symbolic links");
  const auto mode = Files::mode(*place);
  if (!mode && Files::exists(*place)) return refuse(file, notRegular);
  Files::makeDirectories(place->substr(0, place->rfind('/')));
  const auto error = Files::write(*place, text, mode.value_or(0600) | 0400);
  if (error) return refuse(file, error.message());
  file.logger.info("installed " + std::string(file.agent) + " hooks at " + path(file));
  return true;
}

bool refuse(const File& file, std::string_view why) {
  file.logger.error("failed to write ~/" + std::string(file.place) + ": " + std::string(why));
  return false;
}

bool isOwn(const Json& entry, std::string_view command) {
  const Json::Object* members = entry.asObject();
  if (!members) return false;
  const std::string& present = members->text("command");
  return present == command || present.find(executableName) != std::string::npos;
}

}  // namespace HookFile
