// Where the log server keeps its files.
#pragma once

#include <string>

namespace mlog {

// Taken from the server's configuration. Throws std::runtime_error with a text for the user when it
// cannot be read.
std::string server_directory();

}  // namespace mlog
