// Files that are written whole.
#pragma once

#include <span>
#include <string>

namespace servers {

// Puts a new file (mode 0600) with that content in the place of `path`. Whoever opens `path`, also
// after a loss of power, finds the old content or the new one. False, with errno set and `path` as
// it was, on failure. Waits for the disk.
bool replace_file(const std::string &path, std::span<const char> content);

// The same for `name` in an open directory, whose other files are left alone: the content is first
// written to a new file with a random name.
bool replace_file_in(int directory, const std::string &name, std::span<const char> content);

}  // namespace servers
