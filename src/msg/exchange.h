// A synchronous request whose answer owns itself.
#pragma once

#include "base/result.h"
#include "msg/header.h"

namespace msgapi::msg {

// ORP_MSG_SendAndRecv. kBadArgument when the exchange succeeds without a reply.
inline Result<Owned<Header>> exchange(Header *request, uint32_t timeout_ms) {
  Header *response = nullptr;
  const uint32_t status = ORP_MSG_SendAndRecv(request, &response, timeout_ms);
  Owned<Header> reply(response);
  if (status != ORP_OK) return static_cast<Status>(status);
  if (!reply) return Status::kBadArgument;
  return Result<Owned<Header>>(std::move(reply));
}

// The ulMsgData of the reply, or why there is none.
inline uint32_t exchange_for_data(Header *request, uint32_t timeout_ms) {
  Result<Owned<Header>> reply = exchange(request, timeout_ms);
  return reply ? (*reply)->ulMsgData : code(reply.status());
}

}  // namespace msgapi::msg
