#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "Platform/Descriptor.h"
#include "Platform/Files.h"

namespace {

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
    std::size_t count = std::min(chunkSize, end_ - position_);
    if (!reserve(kept.size() + count)) return {bytes_.get(), kept.size()};
    ssize_t filled = 0;
    do {
      filled = ::pread(descriptor_, bytes_.get() + kept.size(), count, static_cast<off_t>(position_));
    } while (filled < 0 && errno == EINTR);
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
    std::size_t capacity = std::max(size, 2 * capacity_);
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

// Where reading begins that is to begin at `offset`.
std::size_t startOf(const struct stat& attributes, std::int64_t offset) {
  return offset < 0 || offset > attributes.st_size ? 0 : static_cast<std::size_t>(offset);
}

}  // namespace

bool Files::forEachLine(const std::string& path, std::int64_t offset,
                        const std::function<bool(std::string_view line)>& visit) {
  Descriptor file = openForReading(path);
  auto attributes = regularFile(file);
  if (!attributes) return false;
  Chunks chunks(file.get(), startOf(*attributes, offset), static_cast<std::size_t>(attributes->st_size));
  std::string_view unread;
  std::size_t searched = 0;  // of `unread`, without finding a line's end
  for (;;) {
    std::size_t end = lineEnd(unread, searched);
    if (end != unread.npos) {
      if (!visit(unread.substr(0, end))) return true;
      unread.remove_prefix(end + 1);
      searched = 0;
      continue;
    }
    searched = unread.size();
    unread = chunks.more(unread);
    if (chunks.failed()) return false;
    if (unread.size() == searched) break;
  }
  visit(unread);
  return true;
}
