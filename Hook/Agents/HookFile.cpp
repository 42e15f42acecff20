#include "Hook/Agents/HookFile.h"

#include <filesystem>
#include <system_error>

#include "Platform/Files.h"
#include "Platform/Paths.h"
#include "Platform/Process.h"

namespace HookFile {
namespace {

constexpr std::string_view executableName = "quib-hook";
constexpr std::string_view notRegular = "it is not a regular file";
constexpr int maxLinks = 40;
constexpr int maxBackups = 100;

// Empty, which no file's path is, when there is no home directory.
std::string path(const File& file) {
  return Paths::inHome(file.place).value_or("");
}

// Where the file really is, also when the last link of a chain leads to a file that is yet to be created; a
// link when they lead in a circle.
std::string target(const File& file) {
  std::filesystem::path at = path(file);
  std::error_code error;
  for (int links = 0; links < maxLinks && std::filesystem::is_symlink(at, error); ++links) {
    at = at.parent_path() / std::filesystem::read_symlink(at, error);
  }
  return at.string();
}

}  // namespace

bool accepts(const File& file, const std::string& binaryPath) {
  if (Process::home().empty()) return refuse(file, "there is no home directory");
  if (binaryPath.empty()) return refuse(file, "the path of this executable is unknown");
  if (binaryPath.find('\'') != std::string::npos) {
    return refuse(file, "the path of this executable contains a single quote");
  }
  const auto written = Json::parse(Json(binaryPath).compact());
  if (written != Json(binaryPath)) return refuse(file, "the path of this executable is not UTF-8");
  return true;
}

bool exists(const File& file) {
  return Files::exists(path(file));
}

std::optional<std::string> read(const File& file) {
  return Files::read(path(file));
}

bool backUp(const File& file, const std::optional<std::string>& text) {
  const std::string place = target(file);
  const auto mode = Files::mode(place);
  if (!mode) return refuse(file, notRegular);
  const std::string first = path(file) + ".bak";
  std::string copy = first;
  for (int number = 2; Files::exists(copy); ++number) {
    if (number > maxBackups) return refuse(file, "too many backups of it are kept");
    copy = first + "." + std::to_string(number);
  }
  const auto error = text ? Files::write(copy, *text, *mode) : Files::move(place, copy);
  return !error || refuse(file, "the present file cannot be backed up: " + error.message());
}

bool replace(const File& file, std::string_view text) {
  const std::string place = target(file);
  const auto mode = Files::mode(place);
  if (!mode && Files::exists(place)) return refuse(file, notRegular);
  std::error_code error;
  if (std::filesystem::is_symlink(place, error)) return refuse(file, "Too many levels of symbolic links");

  Files::makeDirectories(place.substr(0, place.rfind('/')));
  error = Files::write(place, text, mode.value_or(0600) | 0400);
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
