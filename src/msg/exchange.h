// Synchronous requests whose answer owns itself.
#pragma once

#include "base/result.h"
#include "msg/header.h"

namespace msgapi::msg {

// ORP_MSG_SendAndRecv.
Result<Owned<Header>> exchange(Header *request, uint32_t timeout_ms);

// The ulMsgData of the reply.
Result<uint32_t> exchange_for_data(Header *request, uint32_t timeout_ms);

// For functions of the interface that return data or status as one number.
inline uint32_t data_or_code(const Result<uint32_t> &data) {
  return data ? *data : code(data.status());
}

}  // namespace msgapi::msg
