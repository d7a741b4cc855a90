// The clients of a soak.
#pragma once

#include <cstdint>
#include <string>

#include "board.h"

namespace soak {

// The text of a client's log line in the ring file.
std::string line_text(uint32_t incarnation, uint64_t number);

// Asks for `path` over a connection, which is closed, and returns everything that comes until the
// server closes it.
std::string http_get(int connection, const std::string &path);

// A client's whole life, in a process of its own. It writes its first failure to the board.
[[noreturn]] void run_client(Board *board, uint32_t client, uint32_t incarnation, uint32_t seed);

}  // namespace soak
