// The status vocabulary of the module log. The values are the C codes themselves.
#pragma once

#include <cstdint>

#include "msgapi/log.h"

namespace msgapi::log {

enum class [[nodiscard]] Status : int32_t{
    kOk = 0,
    kFailed = MLOG_ERR,
    kNoSocket = MLOG_ERR_SOCKET,
    kNoNetlink = MLOG_ERR_NETLINK,
};

constexpr int32_t code(Status status) {
  return static_cast<int32_t>(status);
}

}  // namespace msgapi::log
