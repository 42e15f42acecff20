// An open file of POSIX, for the platform layer's own use.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <optional>
#include <string>
#include <string_view>

// Closed at the end of its scope; `valid()` is false when opening failed.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor();
  bool valid() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

// What a system call returns, made again whenever a signal interrupts it.
auto uninterrupted(auto call) {
  auto result = call();
  while (result < 0 && errno == EINTR)
    result = call();
  return result;
}

// As `pread`, never interrupted.
ssize_t readAt(int descriptor, char* bytes, std::size_t size, std::size_t position);

// The first `size` bytes, fewer when the file ends before; absent when reading fails.
std::optional<std::string> contentOf(const Descriptor& file, std::size_t size);

// Writes all bytes, waiting where the descriptor does not; false at the first error.
bool writeAll(int descriptor, std::string_view bytes);

// The path as the system takes it. No file has a NUL in its name; the empty path stands for one that does,
// and is never found.
const char* cPath(const std::string& path);

// Opens without ever waiting for a FIFO's other end; `more` are further flags of open(2).
Descriptor openForReading(const std::string& path, int more = 0);

// Absent when opening has failed or what was opened is no regular file.
std::optional<struct stat> regularFile(const Descriptor& file);
