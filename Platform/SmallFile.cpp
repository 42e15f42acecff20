#include "Platform/SmallFile.h"

#include <fcntl.h>
#include <unistd.h>

#include "Platform/Descriptor.h"
#include "Platform/Log.h"

namespace SmallFile {

namespace {

constexpr Log::Category logger{"hook"};

bool ownsDirectoryOf(const std::string& path, uid_t user) {
  struct stat attributes;
  const std::string directory = path.substr(0, path.rfind('/') + 1);
  return ::stat(cPath(directory), &attributes) == 0 && attributes.st_uid == user;
}

bool mayOwn(uid_t user, const std::string& path, Owner owner) {
  return owner == Owner::anybody || user == ::geteuid() ||
         (owner == Owner::userOrDirectory && ownsDirectoryOf(path, user));
}

}  // namespace

std::optional<std::string> read(const std::string& path, Owner owner) {
  const Descriptor file = openForReading(path, owner == Owner::anybody ? 0 : O_NOFOLLOW);
  const auto attributes = regularFile(file);
  if (!attributes || !mayOwn(attributes->st_uid, path, owner)) return std::nullopt;
  const auto size = static_cast<std::size_t>(attributes->st_size);
  if (size <= limit) return contentOf(file, size);
  logger.error("too large to read: " + path);
  return std::nullopt;
}

}  // namespace SmallFile
