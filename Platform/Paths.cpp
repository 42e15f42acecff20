#include "Platform/Paths.h"

#include <fnmatch.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <functional>
#include <vector>

#include "Platform/Files.h"
#include "Platform/Process.h"
#include "Platform/Text.h"

namespace Paths {

namespace {

// No variable is replaced that would make a path longer than this, far beyond what names a file.
constexpr std::size_t longestExpansion = 1 << 20;

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  if (!Text::contains(text, from)) return;
  std::string result;
  std::size_t done = 0;
  for (std::size_t at = text.find(from); at != text.npos; at = text.find(from, done)) {
    result.append(text, done, at - done).append(to);
    done = at + from.size();
    if (result.size() > longestExpansion) return;
  }
  text = result.append(text, done);
}

std::string_view withoutLastComponent(std::string_view path) {
  return path.substr(0, path.rfind('/'));
}

// The directory that an absolute path without a trailing "/" leads to, links resolved, or the path itself
// when it does not exist; the root is the empty string.
std::string resolved(const std::string& path) {
  std::array<char, PATH_MAX> buffer;
  if (path.empty() || !::realpath(path.c_str(), buffer.data())) return path;
  const std::string real = buffer.data();
  return real == "/" ? "" : real;
}

}  // namespace

std::optional<std::string> inHome(std::string_view place) {
  std::string home = Process::home();
  if (home.empty()) return std::nullopt;
  return home.append("/").append(place);
}

bool staysBelow(std::string_view path) {
  if (path.starts_with('/')) return false;
  while (!path.empty())
    if (Text::takePart(path, "/") == "..") return false;
  return true;
}

std::string expandTilde(std::string_view path) {
  if (!path.starts_with('~')) return std::string(path);
  const std::size_t end = std::min(path.find('/'), path.size());
  const std::string user(path.substr(1, end - 1));
  const std::optional<std::string> home = user.empty() ? Process::home() : Process::homeOf(user);
  return home && !home->empty() ? *home + std::string(path.substr(end)) : std::string(path);
}

std::string expandVariables(std::string path) {
  if (path.find('$') == path.npos) return path;
  auto variables = Process::environment();
  std::ranges::sort(variables, std::greater(), [](const auto& variable) { return variable.first.size(); });
  for (const auto& [name, value] : variables) {
    if (name.empty()) continue;
    replaceAll(path, "$" + name, value);
    replaceAll(path, "${" + name + "}", value);
  }
  return path;
}

std::string standardize(std::string_view given) {
  const std::string path = expandTilde(given);
  const bool absolute = path.starts_with('/');
  std::string out;  // each component with the "/" before it
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    const std::string_view component(path.data() + at, end - at);
    at = end + 1;
    if (component.empty() || component == ".") continue;
    if (component == ".." && absolute) {
      // Of a path too long to name a file nothing is looked up, however many parents it has.
      out = withoutLastComponent(path.size() < PATH_MAX ? resolved(out) : out);
      continue;
    }
    out.append("/").append(component);
  }
  if (!absolute) return out.empty() ? out : out.substr(1);
  static constexpr std::string_view privatePrefix = "/private/";
  if (out.starts_with(privatePrefix)) {
    const std::string without = out.substr(privatePrefix.size() - 1);
    if (Files::exists(without)) return without;
  }
  return out.empty() ? "/" : out;
}

std::string resolveLinks(const std::string& path) {
  std::array<char, PATH_MAX> buffer;
  if (::realpath(path.c_str(), buffer.data())) return buffer.data();
  if (path.starts_with('/') || !::getcwd(buffer.data(), buffer.size())) return standardize(path);
  return standardize(std::string(buffer.data()) + "/" + path);
}

std::string_view lastComponent(std::string_view path) {
  const std::size_t end = path.find_last_not_of('/');
  if (end == path.npos) return path.substr(0, std::min<std::size_t>(path.size(), 1));
  path = path.substr(0, end + 1);
  return path.substr(path.rfind('/') + 1);
}

bool glob(const std::string& pattern, const std::string& candidate) {
  return ::fnmatch(pattern.c_str(), candidate.c_str(), 0) == 0;
}

}  // namespace Paths
