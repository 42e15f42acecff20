#include "Platform/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "Platform/Descriptor.h"

namespace Files {

namespace {

std::error_code lastError() {
  return {errno, std::generic_category()};
}

bool writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

std::optional<std::string> contentOf(const Descriptor& file, std::size_t size) {
  std::string content;
  content.resize(size);
  std::size_t filled = 0;
  while (filled < size) {
    ssize_t count = ::pread(file.get(), content.data() + filled, size - filled, static_cast<off_t>(filled));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;  // truncated meanwhile
    filled += static_cast<std::size_t>(count);
  }
  content.resize(filled);
  return content;
}

bool endsTorn(const Descriptor& file) {
  auto attributes = regularFile(file);
  char last = '\n';
  return attributes && attributes->st_size > 0 &&
         ::pread(file.get(), &last, 1, attributes->st_size - 1) == 1 && last != '\n';
}

// How often, for a millisecond each, this process has waited for a lock, and how often it may.
std::atomic<int> waits = 0;
constexpr int mostWaits = 100;

// Released when the file is closed.
bool lock(const Descriptor& file, int kind) {
  while (::flock(file.get(), kind | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK || waits >= mostWaits) return false;
    ++waits;
    ::usleep(1'000);
  }
  return true;
}

// A record that another process is writing shows its first part early and looks like a torn line. So writers
// share a lock, and only who has it alone believes in the tear. Who does not get it in time writes all the
// same.
bool lockedAndTorn(const Descriptor& file) {
  lock(file, LOCK_SH);
  if (!endsTorn(file)) return false;
  if (lock(file, LOCK_EX)) return endsTorn(file);
  lock(file, LOCK_SH);  // asking for more has given up the share
  return false;
}

// A new file beside `path`; its own path is put into `name`.
Descriptor createBeside(const std::string& path, std::string& name) {
  name = path.substr(0, path.rfind('/') + 1).append(temporaryPrefix).append("XXXXXX");
#ifdef __APPLE__
  int descriptor = ::mkstemp(name.data());
  if (descriptor >= 0) ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  return Descriptor(descriptor);
#else
  return Descriptor(::mkostemp(name.data(), O_CLOEXEC));
#endif
}

}  // namespace

std::optional<std::string> read(const std::string& path) {
  Descriptor file = openForReading(path);
  auto attributes = regularFile(file);
  return attributes ? contentOf(file, static_cast<std::size_t>(attributes->st_size)) : std::nullopt;
}

bool exists(const std::string& path) {
  return ::access(cPath(path), F_OK) == 0;
}

std::optional<std::int64_t> size(const std::string& path) {
  struct stat attributes;
  if (::stat(cPath(path), &attributes) != 0) return std::nullopt;
  return attributes.st_size;
}

std::error_code write(const std::string& path, std::string_view bytes, unsigned mode) {
  std::string temporary;
  std::error_code error;
  {
    Descriptor file = createBeside(path, temporary);
    if (!file.valid()) return lastError();
    if (!writeAll(file.get(), bytes) ||
        (mode != 0600 && ::fchmod(file.get(), static_cast<mode_t>(mode)) != 0))
      error = lastError();
  }
  if (!error) error = move(temporary, path);
  if (error) ::unlink(temporary.c_str());
  return error;
}

std::error_code move(const std::string& from, const std::string& to) {
  return ::rename(cPath(from), cPath(to)) == 0 ? std::error_code() : lastError();
}

bool append(const std::string& path, std::string_view record) {
  const auto open = [&](int access) {
    return ::open(cPath(path), access | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0600);
  };
  int descriptor = open(O_RDWR);
  if (descriptor < 0 && errno == EACCES) descriptor = open(O_WRONLY);
  const Descriptor file(descriptor);
  if (!regularFile(file)) return false;
  const std::string whole = (lockedAndTorn(file) ? "\n" : "") + std::string(record);
  return ::write(file.get(), whole.data(), whole.size()) == static_cast<ssize_t>(whole.size());
}

bool remove(const std::string& path) {
  return ::unlink(cPath(path)) == 0;
}

std::error_code makeDirectories(const std::string& path) {
  const auto isDirectory = [&] {
    struct stat attributes;
    return ::stat(cPath(path), &attributes) == 0 && S_ISDIR(attributes.st_mode);
  };
  if (isDirectory() || ::mkdir(cPath(path), S_IRWXU) == 0) return {};
  std::error_code error = lastError();
  if (error == std::errc::no_such_file_or_directory) {
    std::string parent = path.substr(0, path.find_last_not_of('/') + 1);
    parent.resize(parent.find_last_of('/') == parent.npos ? 0 : parent.find_last_of('/'));
    if (parent.empty()) return error;
    if (std::error_code parentError = makeDirectories(parent)) return parentError;
    return ::mkdir(cPath(path), S_IRWXU) == 0 || errno == EEXIST ? std::error_code() : lastError();
  }
  // Somebody else may have made it meanwhile.
  return isDirectory() ? std::error_code() : error;
}

std::vector<std::string> list(const std::string& directory) {
  std::vector<std::string> names;
  DIR* stream = ::opendir(cPath(directory));
  if (!stream) return names;
  while (const dirent* entry = ::readdir(stream)) {
    std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  ::closedir(stream);
  std::sort(names.begin(), names.end());
  return names;
}

std::optional<std::chrono::system_clock::time_point> modified(const std::string& path) {
  struct stat attributes;
  if (::stat(cPath(path), &attributes) != 0) return std::nullopt;
#ifdef __APPLE__
  const timespec& time = attributes.st_mtimespec;
#else
  const timespec& time = attributes.st_mtim;
#endif
  // The clock ends in the year 2262, a file system's dates do not.
  using Time = std::chrono::system_clock::time_point;
  auto last = std::chrono::floor<std::chrono::seconds>(Time::max().time_since_epoch()).count();
  std::chrono::seconds seconds(std::clamp<std::int64_t>(time.tv_sec, -last, last - 1));
  return Time(seconds) + std::chrono::duration_cast<Time::duration>(std::chrono::nanoseconds(time.tv_nsec));
}

std::optional<unsigned> mode(const std::string& path) {
  struct stat attributes;
  if (::lstat(cPath(path), &attributes) != 0 || !S_ISREG(attributes.st_mode)) return std::nullopt;
  return attributes.st_mode & 07777;
}

}  // namespace Files
