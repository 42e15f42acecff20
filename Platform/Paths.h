// Path texts: expansion, standard form, last component, glob match. Nothing here fails.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Paths {

// The path of what lies at `place` below the current user's home directory; absent when that is unknown.
std::optional<std::string> inHome(std::string_view place);

// Whether a relative path leads to what lies below the directory that it is taken from, whatever is linked
// there: it does not begin with "/" and has no component "..".
bool staysBelow(std::string_view path);

// A lone leading tilde, or one before "/", stands for the current user's home directory, one before a user
// name for that user's. An unknown user's tilde stays.
std::string expandTilde(std::string_view path);

// Every "$NAME", then every "${NAME}", of each variable of the environment replaced by its value, literally.
// Variables are taken in the order of the longest name first, so that none is cut short by another's prefix.
// One that would make the path longer than 1 MiB stays as it is.
std::string expandVariables(std::string path);

// Collapses repeated "/", drops "." components and a trailing "/", expands a leading tilde, and resolves ".."
// against the component before it (an absolute path's symbolic links are resolved first where they exist; in
// a relative path ".." stays). A leading "/private" is dropped when the path without it exists.
std::string standardize(std::string_view path);

// The absolute path of a file, a relative one taken from the current directory, with all symbolic links
// resolved; as far as it exists, else in standard form.
std::string resolveLinks(const std::string& path);

// The part after the last "/", trailing ones disregarded; "/" for the root, empty for the empty path.
std::string_view lastComponent(std::string_view path);

// POSIX fnmatch(3) with flags 0: "*" and "?" also match "/", a leading "." is no special case.
bool glob(const std::string& pattern, const std::string& candidate);

}  // namespace Paths
