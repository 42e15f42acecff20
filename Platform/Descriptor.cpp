#include "Platform/Descriptor.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

Descriptor::~Descriptor() {
  if (valid()) ::close(descriptor_);
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

Descriptor openForReading(const std::string& path) {
  return Descriptor(::open(cPath(path), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

std::optional<struct stat> regularFile(const Descriptor& file) {
  struct stat attributes;
  if (!file.valid() || ::fstat(file.get(), &attributes) != 0 || !S_ISREG(attributes.st_mode))
    return std::nullopt;
  return attributes;
}
