// The status vocabulary that the loop and the message layer share.
//
// The values are the C codes themselves, so entry points hand them out with code(), without a
// table.
#pragma once

#include <cstdint>

#include "msgapi/status.h"

namespace msgapi {

enum class [[nodiscard]] Status : uint32_t{
    kOk = ORP_OK,
    kNoSocket = ORP_ERR_SOCKET,
    kBadArgument = ORP_ERR_ARGUMENT,
    kEmptyName = ORP_ERR_EMPTY_NAME,
    kNotConnected = ORP_ERR_NOT_CONNECTED,
    kPeerGone = ORP_ERR_PEER_GONE,
    kTimeout = ORP_ERR_TIMEOUT,
    kNoMemory = ORP_ERR_MEMORY,
    kSystem = ORP_ERR_SYSTEM,
    kNotWritable = ORP_ERR_NOT_WRITABLE,
    kTooLong = ORP_ERR_NOT_WRITABLE,
    kNoHandOver = ORP_ERR_HAND_OVER,

    // From functions that give no reason.
    kFailed = 1,
};

constexpr uint32_t code(Status status) {
  return static_cast<uint32_t>(status);
}

}  // namespace msgapi
