#include "Platform/Descriptor.h"

#include <fcntl.h>
#include <unistd.h>

Descriptor::~Descriptor() {
  if (valid()) ::close(descriptor_);
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
