// What a process runs.
#pragma once

#include <sys/types.h>

#include <span>
#include <string_view>

namespace msgsvr {

// The program's path, in `buffer`. When the kernel hides it, because the server runs with fewer
// rights than the process, it is the first word of the command line, which the process itself
// chooses. Empty when neither can be found out.
std::string_view program_of(pid_t pid, std::span<char> buffer) noexcept;

}  // namespace msgsvr
