// The parts of receiving that the context, the synchronous wait and descriptor passing share.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "msg/header.h"

namespace msgapi::msg {

// True when the descriptor can be read within `timeout_ms` (0: 20 s), false after the time-out and
// for a descriptor that is not open. A wait that is interrupted starts again with its full time.
bool await_readable(int fd, uint32_t timeout_ms);

// Brings a received header to host order, records the sender's board in the context and reduces the
// type to its 20 bits. True when the body is the path of a hand-over file.
bool prepare_header(Header *header);

// One message; see ORP_MSG_ReceiveWithEndian for the rules and the statuses.
Result<Owned<Header>> receive_message(int fd, uint32_t timeout_ms, bool convert);

}  // namespace msgapi::msg
