// Whole files, atomic replacement, appended records, directory listings. Only regular files are read or
// appended to: a directory, a FIFO or a device counts as absent, and nothing ever blocks on one. Descriptors
// are closed on exec.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace Files {

// The whole content; absent when the file is missing, unreadable or not a regular file.
std::optional<std::string> read(const std::string& path);

// Calls `visit` with each line from byte `offset` on (from the start when it is negative or beyond the end),
// in one snapshot of the size, until `visit` returns false. No more than a line is held in memory, and one
// that is longer than `longestLine` is passed over without being held. Lines end
// at every line feed that is a character of its own (one behind a carriage return is not) and come without
// it; the last one is what stands behind the last such line feed, empty or not. False when the file is
// missing, no regular file, or fails to read.
inline constexpr std::size_t longestLine = 64 * 1024 * 1024;
bool forEachLine(const std::string& path, std::int64_t offset,
                 const std::function<bool(std::string_view line)>& visit);

bool exists(const std::string& path);  // of any kind, links followed

// Size in bytes, links followed; absent when the file's attributes cannot be read.
std::optional<std::int64_t> size(const std::string& path);

// What the names of the temporary files begin with that a kill in the middle of a `write` leaves behind.
inline constexpr std::string_view temporaryPrefix = ".quib-";

// Replaces the file by one with this content, through a temporary file of its own beside it and a rename: a
// kill at any instant leaves the old content or the new. A link is replaced, not its target. The new file has
// `mode`. Returns the error that prevented it, if any; the old file is then untouched.
std::error_code write(const std::string& path, std::string_view bytes, unsigned mode = 0600);

// Writes `path` with ".tmp" appended, then moves it to `path`. So a content that cannot be put in place is
// not lost, as it would be by a `write` to `path` itself: it stays, whole, in the file ".tmp".
// What another process that saves the same file has moved away first is in place, too.
std::error_code save(const std::string& path, std::string_view bytes);

// Renames `from` to `to`, replacing it in one step.
std::error_code move(const std::string& from, const std::string& to);

// Appends `record` (which ends with a line feed) in one write to a file that is created with mode 0600 when
// missing. A torn last line left by an earlier failure is ended first, unless the user may not read the file.
// For others that write to it, all of a process's records together wait for about 100 ms at most. False when
// it could not be written whole.
bool append(const std::string& path, std::string_view record);

bool remove(const std::string& path);  // false when it was not removed

// Where the links at `path` lead in the end, be there a file or not yet (the path itself when it is no link);
// absent when they lead in a circle.
std::optional<std::string> endOfLinks(std::string path);

// Creates `path` and its missing parents, each with mode 0700. No error when it is there already.
std::error_code makeDirectories(const std::string& path);

enum class Directory { missing, own, foreign };

// Whose the directory at `path` is: our own when it is one, not a link to one, of the effective user, and
// nobody else may write to it; who may is first denied it. `missing` when nothing is there.
Directory claimDirectory(const std::string& path);

// The names in a directory, sorted by bytes, without "." and ".."; empty when it cannot be listed.
std::vector<std::string> list(const std::string& directory);

// When the content was last modified; absent when it cannot be told.
std::optional<std::chrono::system_clock::time_point> modified(const std::string& path);

// Permission bits of the file, links not followed; absent when it is missing or not a regular file.
std::optional<unsigned> mode(const std::string& path);

}  // namespace Files
