// The status vocabulary of the notify client. The values are the C codes themselves; those of
// base/status.h have other meanings under the same numbers.
#pragma once

#include <cerrno>
#include <cstdint>

#include "base/result.h"
#include "msgapi/notify.h"

namespace msgapi::notify {

enum class [[nodiscard]] Status : uint32_t{
    kOk = ORP_NOTIFYCLT_OK, kNoSocket = ORP_NOTIFYCLT_ERR_SOCKET,
    kBadArgument = ORP_NOTIFYCLT_ERR_ARGUMENT, kBadModule = ORP_NOTIFYCLT_ERR_MODULE,
    kPeerGone = ORP_NOTIFYCLT_ERR_PEER_GONE, kTimeout = ORP_NOTIFYCLT_ERR_TIMEOUT,
    kNoMemory = ORP_NOTIFYCLT_ERR_MEMORY, kIo = ORP_NOTIFYCLT_ERR_IO,
    kNotWritable = ORP_NOTIFYCLT_ERR_NOT_WRITABLE,

    // Long-standing codes without a name in the interface.
    kNoReplyData = EINVAL,      // a procedure promised a reply and gave no data
    kPathTooLong = UINT32_MAX,  // of the client's own socket
};

constexpr uint32_t code(Status status) {
  return static_cast<uint32_t>(status);
}

template <typename T>
using Result = msgapi::Result<T, Status>;

}  // namespace msgapi::notify
