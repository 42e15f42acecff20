// Files that this program believes although others may have put them there: configuration, records, lists.
// One that is larger than `limit` counts as unreadable, and the log names it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace SmallFile {

inline constexpr std::size_t limit = 16 * 1024 * 1024;

enum class Owner {
  anybody,
  user,             // the effective one
  userOrDirectory,  // or whoever owns the directory that the file lies in
};

// The whole content; absent when the file is missing, unreadable, too large or no regular file. One that must
// have an owner is never reached through a link, and absent when it has another.
std::optional<std::string> read(const std::string& path, Owner owner = Owner::anybody);

}  // namespace SmallFile
