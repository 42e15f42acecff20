#include "Platform/Descriptor.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

Descriptor::~Descriptor() {
  if (valid()) ::close(descriptor_);
}

ssize_t readAt(int descriptor, char* bytes, std::size_t size, std::size_t position) {
  return uninterrupted([&] { return ::pread(descriptor, bytes, size, static_cast<off_t>(position)); });
}

std::optional<std::string> contentOf(const Descriptor& file, std::size_t size) {
  std::string content;
  content.resize(size);
  std::size_t filled = 0;
  while (filled < size) {
    const ssize_t count = readAt(file.get(), content.data() + filled, size - filled, filled);
    if (count < 0) return std::nullopt;
    if (count == 0) break;  // truncated meanwhile
    filled += static_cast<std::size_t>(count);
  }
  content.resize(filled);
  return content;
}

bool writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = uninterrupted([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
    if (count > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (count < 0 && errno == EAGAIN) {
      pollfd waiting{descriptor, POLLOUT, 0};
      ::poll(&waiting, 1, -1);
    } else {
      return false;
    }
  }
  return true;
}

const char* cPath(const std::string& path) {
  return path.find('\0') == path.npos ? path.c_str() : "";
}

Descriptor openForReading(const std::string& path, int more) {
  return Descriptor(::open(cPath(path), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | more));
}

std::optional<struct stat> regularFile(const Descriptor& file) {
  struct stat attributes;
  if (!file.valid() || ::fstat(file.get(), &attributes) != 0 || !S_ISREG(attributes.st_mode))
    return std::nullopt;
  return attributes;
}
