// Requests to the service that counts failed logins.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>

#include "base/memory.h"
#include "cfmapi.h"
#include "msg/exchange.h"
#include "msg/send.h"
#include "msgapi/login.h"

namespace msgapi::device {
namespace {

using msg::Header;

constexpr uint32_t kLoginWait = 0x61A11703;
constexpr uint32_t kMaxLoginWait_s = 10;
constexpr uint32_t kTimeoutMs = 4000;

struct Request {
  Header header;
  char record[ORP_LCTRL_REQUEST_SIZE];
};

// One more try after a time-out, none after anything else.
Result<Owned<Header>> exchange_twice(Header *request) {
  Result<Owned<Header>> reply = msg::exchange(request, kTimeoutMs);
  if (reply.status() != Status::kTimeout) return reply;
  std::printf("msg timeout error : %d \n", static_cast<int>(code(reply.status())));
  return msg::exchange(request, kTimeoutMs);
}

uint32_t ask(uint32_t type, std::span<const char> record, std::span<char> result) {
  Request request{};
  request.header.ulMsgType = type;
  request.header.ulDataLen = static_cast<uint32_t>(record.size());
  std::copy(record.begin(), record.end(), request.record);

  const Result<Owned<Header>> reply = exchange_twice(&request.header);
  if (!reply) return code(reply.status());
  if ((*reply)->ulDataLen < result.size()) return ORP_LCTRL_ERR_REPLY;
  std::memcpy(result.data(), msg::body((*reply).get()), result.size());
  return ORP_LCTRL_OK;
}

uint32_t ask(uint32_t type, const void *record, size_t record_size, void *result,
             size_t result_size) {
  if (record == nullptr || result == nullptr) return ORP_LCTRL_ERR_ARGUMENT;
  return ask(type, {static_cast<const char *>(record), record_size},
             {static_cast<char *>(result), result_size});
}

}  // namespace
}  // namespace msgapi::device

using namespace msgapi;
using namespace msgapi::device;

extern "C" uint32_t ORP_LCTRLAPI_Login(const void *request, void *result) {
  return ask(ORP_LCTRL_MSG_LOGIN, request, ORP_LCTRL_REQUEST_SIZE, result, ORP_LCTRL_RESULT_SIZE);
}

extern "C" uint32_t ORP_LCTRLAPI_Check(const void *request, void *result) {
  return ask(ORP_LCTRL_MSG_CHECK, request, ORP_LCTRL_REQUEST_SIZE, result, ORP_LCTRL_RESULT_SIZE);
}

extern "C" uint32_t ORP_LCTRLAPI_SetMaxFailedTimes(const void *limit) {
  if (limit == nullptr) return ORP_LCTRL_ERR_ARGUMENT;
  return code(msg::send_content(msg::kServer, ORP_LCTRL_MSG_SET_MAX_FAILED,
                                msg::content_of(limit, ORP_LCTRL_LIMIT_SIZE)));
}

extern "C" uint32_t ORP_LCTRLAPI_ClearForbiddenList(uint32_t value) {
  return code(msg::send_record(msg::kServer, ORP_LCTRL_MSG_CLEAR_FORBIDDEN, value));
}

extern "C" uint32_t ORP_LCTRLAPI_GetForbiddenRound(const void *query, void *round) {
  return ask(ORP_LCTRL_MSG_GET_ROUND, query, ORP_LCTRL_QUERY_SIZE, round, ORP_LCTRL_ROUND_SIZE);
}

extern "C" uint32_t ORP_LCTRLAPI_LoginWaitTime() {
  uint32_t wait_s = 0;
  if (ORP_DBGetPara(nullptr, kLoginWait, &wait_s, sizeof wait_s) != 0) return 0;
  return wait_s <= kMaxLoginWait_s ? wait_s : 0;
}
