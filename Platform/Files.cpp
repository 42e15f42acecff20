#include "Platform/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "Platform/Descriptor.h"

namespace Files {

namespace {

std::error_code lastError() {
  return {errno, std::generic_category()};
}

bool endsTorn(const Descriptor& file) {
  const auto attributes = regularFile(file);
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
  const int descriptor = ::mkstemp(name.data());
  if (descriptor >= 0) ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  return Descriptor(descriptor);
#else
  return Descriptor(::mkostemp(name.data(), O_CLOEXEC));
#endif
}

// Reads a file in chunks, keeping those of its bytes that the caller has not done with.
class Chunks {
 public:
  Chunks(int descriptor, std::size_t from, std::size_t end)
      : descriptor_(descriptor), position_(from), end_(end) {}

  bool failed() const { return failed_; }

  // `kept` (the end of what the last call gave) with the next chunk behind it; `kept` alone at the file's end
  // and when reading fails.
  std::string_view more(std::string_view kept) {
    if (!kept.empty() && kept.data() != bytes_.get()) std::memmove(bytes_.get(), kept.data(), kept.size());
    const std::size_t count = std::min(chunkSize, end_ - position_);
    if (!reserve(kept.size() + count)) return {bytes_.get(), kept.size()};
    const ssize_t filled = readAt(descriptor_, bytes_.get() + kept.size(), count, position_);
    failed_ = filled < 0;
    if (filled <= 0) return {bytes_.get(), kept.size()};
    position_ += static_cast<std::size_t>(filled);
    return {bytes_.get(), kept.size() + static_cast<std::size_t>(filled)};
  }

 private:
  static constexpr std::size_t chunkSize = 128 * 1024;
  struct Free {
    void operator()(char* bytes) const { ::free(bytes); }
  };

  // Grows by moving pages where the system can, so that a long line is not in memory twice.
  bool reserve(std::size_t size) {
    if (size <= capacity_) return true;
    const std::size_t capacity = std::max(size, 2 * capacity_);
    auto* grown = static_cast<char*>(::realloc(bytes_.get(), capacity));
    failed_ = grown == nullptr;
    if (failed_) return false;
    static_cast<void>(bytes_.release());
    bytes_.reset(grown);
    capacity_ = capacity;
    return true;
  }

  int descriptor_;
  std::size_t position_;
  std::size_t end_;
  std::unique_ptr<char, Free> bytes_;
  std::size_t capacity_ = 0;
  bool failed_ = false;
};

// Where the line that `text` begins with ends, looking from `from` on; npos when its end is not in `text`.
std::size_t lineEnd(std::string_view text, std::size_t from) {
  std::size_t end = text.find('\n', from);
  while (end != text.npos && end > 0 && text[end - 1] == '\r')
    end = text.find('\n', end + 1);
  return end;
}

std::size_t startOf(const struct stat& attributes, std::int64_t offset) {
  return offset < 0 || offset > attributes.st_size ? 0 : static_cast<std::size_t>(offset);
}

}  // namespace

std::optional<std::string> read(const std::string& path) {
  const Descriptor file = openForReading(path);
  const auto attributes = regularFile(file);
  return attributes ? contentOf(file, static_cast<std::size_t>(attributes->st_size)) : std::nullopt;
}

bool forEachLine(const std::string& path, std::int64_t offset,
                 const std::function<bool(std::string_view line)>& visit) {
  const Descriptor file = openForReading(path);
  const auto attributes = regularFile(file);
  if (!attributes) return false;
  Chunks chunks(file.get(), startOf(*attributes, offset), static_cast<std::size_t>(attributes->st_size));
  std::string_view unread;
  std::size_t searched = 0;  // of `unread`, without finding a line's end
  bool tooLong = false;      // the line that `unread` is the end of
  for (;;) {
    const std::size_t end = lineEnd(unread, searched);
    if (end != unread.npos) {
      if (!std::exchange(tooLong, false) && !visit(unread.substr(0, end))) return true;
      unread.remove_prefix(end + 1);
      searched = 0;
      continue;
    }
    if (unread.size() > longestLine) {
      tooLong = true;
      unread.remove_prefix(unread.size() - 1);  // what follows a carriage return is not a line's end
    }
    searched = unread.size();
    unread = chunks.more(unread);
    if (chunks.failed()) return false;
    if (unread.size() == searched) break;
  }
  if (!tooLong) visit(unread);
  return true;
}

bool exists(const std::string& path) {
  return ::access(cPath(path), F_OK) == 0;
}

std::optional<std::int64_t> size(const std::string& path) {
  struct stat attributes;
  return ::stat(cPath(path), &attributes) == 0 ? std::optional<std::int64_t>(attributes.st_size)
                                               : std::nullopt;
}

std::error_code write(const std::string& path, std::string_view bytes, unsigned mode) {
  std::string temporary;
  std::error_code error;
  {
    const Descriptor file = createBeside(path, temporary);
    if (!file.valid()) return lastError();
    if (!writeAll(file.get(), bytes) ||
        (mode != 0600 && ::fchmod(file.get(), static_cast<mode_t>(mode)) != 0))
      error = lastError();
  }
  if (!error) error = move(temporary, path);
  if (error) ::unlink(temporary.c_str());
  return error;
}

std::error_code save(const std::string& path, std::string_view bytes) {
  const std::string next = path + ".tmp";
  if (const std::error_code error = write(next, bytes)) return error;
  const std::error_code error = move(next, path);
  return error == std::errc::no_such_file_or_directory ? std::error_code() : error;
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

std::optional<std::string> endOfLinks(std::string path) {
  constexpr int maxLinks = 40;
  std::array<char, PATH_MAX> link;
  for (int links = 0; links <= maxLinks; ++links) {
    const ssize_t size = ::readlink(cPath(path), link.data(), link.size());
    if (size < 0) return path;
    path.resize(link[0] == '/' ? 0 : path.rfind('/') + 1);
    path.append(link.data(), static_cast<std::size_t>(size));
  }
  return std::nullopt;
}

std::error_code makeDirectories(const std::string& path) {
  const auto isDirectory = [&] {
    struct stat attributes;
    return ::stat(cPath(path), &attributes) == 0 && S_ISDIR(attributes.st_mode);
  };
  if (isDirectory() || ::mkdir(cPath(path), S_IRWXU) == 0) return {};
  const std::error_code error = lastError();
  if (error == std::errc::no_such_file_or_directory) {
    std::string parent = path.substr(0, path.find_last_not_of('/') + 1);
    parent.resize(parent.find_last_of('/') == parent.npos ? 0 : parent.find_last_of('/'));
    if (parent.empty()) return error;
    if (const std::error_code parentError = makeDirectories(parent)) return parentError;
    return ::mkdir(cPath(path), S_IRWXU) == 0 || errno == EEXIST ? std::error_code() : lastError();
  }
  // Somebody else may have made it meanwhile.
  return isDirectory() ? std::error_code() : error;
}

Directory claimDirectory(const std::string& path) {
  const Descriptor directory = openForReading(path, O_DIRECTORY | O_NOFOLLOW);
  struct stat attributes;
  if (!directory.valid()) return errno == ENOENT ? Directory::missing : Directory::foreign;
  if (::fstat(directory.get(), &attributes) != 0 || attributes.st_uid != ::geteuid())
    return Directory::foreign;
  constexpr mode_t others = S_IWGRP | S_IWOTH;
  const bool closed = (attributes.st_mode & others) == 0 ||
                      ::fchmod(directory.get(), attributes.st_mode & 07777 & ~others) == 0;
  return closed ? Directory::own : Directory::foreign;
}

std::vector<std::string> list(const std::string& directory) {
  std::vector<std::string> names;
  DIR* stream = ::opendir(cPath(directory));
  if (!stream) return names;
  while (const dirent* entry = ::readdir(stream)) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  ::closedir(stream);
  std::ranges::sort(names);
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
  const auto last = std::chrono::floor<std::chrono::seconds>(Time::max().time_since_epoch()).count();
  const std::chrono::seconds seconds(std::clamp<std::int64_t>(time.tv_sec, -last, last - 1));
  return Time(seconds) + std::chrono::duration_cast<Time::duration>(std::chrono::nanoseconds(time.tv_nsec));
}

std::optional<unsigned> mode(const std::string& path) {
  struct stat attributes;
  if (::lstat(cPath(path), &attributes) != 0 || !S_ISREG(attributes.st_mode)) return std::nullopt;
  return attributes.st_mode & 07777;
}

}  // namespace Files
