// What a process runs.
#pragma once

#include <sys/types.h>

#include <span>
#include <string_view>

namespace msgsvr {

// The program's path, in `buffer`; where the kernel keeps that from the server, which may run with
// fewer rights than the process, the first word of its command line, which is the process's own
// word. Empty when neither can be found out.
std::string_view program_of(pid_t pid, std::span<char> buffer) noexcept;

}  // namespace msgsvr
