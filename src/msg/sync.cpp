// Synchronous requests: send, then read messages until the answer comes, putting aside the others.
//
// The first message of the right type (and, where asked for, sender) is the answer; the sequence
// number is deliberately not compared.

#include <optional>
#include <string_view>

#include "base/drop_count.h"
#include "msg/context.h"
#include "msg/exchange.h"
#include "msg/queue.h"
#include "msg/receive.h"
#include "os/clock.h"
#include "uv/trace_point.h"

namespace msgapi::msg {
namespace {

using uv::kTraceLevel;

constexpr uint32_t kDefaultWait_ms = 60000;
constexpr uint32_t kServerWait_ms = 5000;
constexpr uint32_t kMaxQueued = 1000;

// What a wait looks for. The sequence number only appears in trace records.
struct Expected {
  uint32_t type;
  uint32_t sequence;
  const Header *from;  // the answer comes from its destination; null: from anyone

  bool is_met_by(const Header &message) const {
    return type_proper(message.ulMsgType) == type_proper(type) &&
           (from == nullptr || sender(message) == destination(*from));
  }
  // The server's notice that the request found no receiver.
  bool is_failed_by(const Header &message) const {
    return type_proper(message.ulMsgType) == ORP_MSG_UNDELIVERABLE &&
           type_proper(message.ulMsgData) == type_proper(type);
  }
};

class Stopwatch {
 public:
  Stopwatch() { (void)os::read_monotonic(&start_); }

  uint64_t elapsed_ms() const {
    ORP_TIME_ST now;
    (void)os::read_monotonic(&now);
    const int64_t ms = (int64_t{now.seconds} - start_.seconds) * 1000 +
                       (now.microseconds - start_.microseconds) / 1000;
    return ms < 0 ? 0 : static_cast<uint64_t>(ms);
  }

 private:
  ORP_TIME_ST start_;
};

// True when the message is in the pending queue now; otherwise it has been dropped.
bool put_aside(Owned<Header> message) {
  const Status status = append_to_queue(&g_stMsgCtx.pstQueue, message.get(), 0);
  ORP_TRACE_PrintInfo(__func__, __LINE__, 0, "msg", kTraceLevel,
                      "Backup not matched msg type:[0x%x] app:[%s] data:[%u] len:[%u] dst:[%.12s] "
                      "src:[%.12s] return %x.",
                      message->ulMsgType, g_stMsgCtx.aucAppName, message->ulMsgData,
                      message->ulDataLen, message->aucRecvApp, message->aucSendApp, code(status));
  if (status != Status::kOk) {
    ++g_dropped.queue;
    return false;
  }
  (void)message.release();
  return true;
}

Result<Owned<Header>> wait_for(const Expected &expected, uint32_t timeout_ms, uint32_t *queued) {
  uint64_t left_ms = timeout_ms == 0 ? kDefaultWait_ms : timeout_ms;
  for (;;) {
    if (g_stMsgCtx.slSocket < 0) return Status::kBadArgument;
    const Stopwatch watch;
    Result<Owned<Header>> received =
        receive_message(g_stMsgCtx.slSocket, static_cast<uint32_t>(left_ms), /*convert=*/true);
    if (!received) return received.status();

    Owned<Header> message = std::move(*received);
    if (expected.is_failed_by(*message)) return Status::kPeerGone;
    if (expected.is_met_by(*message)) return message;

    // The clock is read only for a wait that goes on.
    const uint64_t elapsed_ms = watch.elapsed_ms();
    left_ms = elapsed_ms < left_ms ? left_ms - elapsed_ms : 0;
    if (put_aside(std::move(message))) ++*queued;
    if (*queued == kMaxQueued || left_ms == 0) return Status::kTimeout;
  }
}

uint32_t receive_expected(const Expected &expected, Header **out, uint32_t timeout_ms) {
  *out = nullptr;
  ORP_TRACE_PrintInfo(__func__, __LINE__, 0, "msg", kTraceLevel,
                      "[start sync %u:0x%x] recv resp msg from [%.12s] now ...", expected.sequence,
                      expected.type, expected.from == nullptr ? "" : expected.from->aucRecvApp);

  uint32_t queued = 0;
  Result<Owned<Header>> answer = wait_for(expected, timeout_ms, &queued);
  if (answer) *out = answer->release();

  ORP_TRACE_PrintInfo(__func__, __LINE__, 0, "msg", kTraceLevel,
                      "[end sync %u:0x%x] finish resp msg with 0x%x, %u msg queued.",
                      expected.sequence, expected.type, code(answer.status()), queued);
  return code(answer.status());
}

// A process that has no name yet, or is "mic", speaks to the server itself: no hook may divert it.
bool bypasses_hook(const Header &request) {
  return type_proper(request.ulMsgType) != ORP_MSG_REGISTER &&
         (own_name().empty() || own_name() == "mic");
}

uint32_t send_past_hook(Header *request) {
  const ORP_MSG_SEND_HOOK hook = g_pfMsgSendHook;
  g_pfMsgSendHook = nullptr;
  const uint32_t status = ORP_MSG_Send(request);
  g_pfMsgSendHook = hook;
  return status;
}

bool is_for_this_process(const Header &request) {
  return type_proper(request.ulMsgType) != ORP_MSG_REGISTER && !own_name().empty() &&
         destination(request) == own_name();
}

enum class Hook { kBypassed, kAlwaysAsked };

uint32_t send_request(Header *request, Hook hook) {
  request->ulSeqNum = next_sequence_number();
  if (is_for_this_process(*request)) {
    copy_cut(request->aucSendApp, own_name());
    ORP_MSG_FilterProc(request);
    return ORP_OK;
  }
  return hook == Hook::kBypassed && bypasses_hook(*request) ? send_past_hook(request)
                                                            : ORP_MSG_Send(request);
}

uint32_t safe_exit(const char *application) {
  Header request = build_header(application, ORP_MSG_EXIT, 0);
  const uint32_t asked = code(exchange(&request, kServerWait_ms).status());

  NameMessage notice = build_name_message(ORP_MSG_EXIT, 0, application);
  return asked | ORP_MSG_Send(&notice.header);
}

}  // namespace
}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_MSG_SendAndRecv(ORP_MSG_HEADER_ST *request, ORP_MSG_HEADER_ST **responseOut,
                                        uint32_t timeoutMs) {
  if (responseOut != nullptr) *responseOut = nullptr;
  if (request == nullptr || responseOut == nullptr) return ORP_ERR_ARGUMENT;

  const uint32_t status = send_request(request, Hook::kBypassed);
  return status != ORP_OK ? status : ORP_MSG_RecvResp(request, responseOut, timeoutMs);
}

extern "C" uint32_t ORP_MSG_SendAndReceiveWithAppName(ORP_MSG_HEADER_ST *request,
                                                      ORP_MSG_HEADER_ST **responseOut,
                                                      uint32_t timeoutMs) {
  if (responseOut != nullptr) *responseOut = nullptr;
  if (request == nullptr || responseOut == nullptr) return ORP_ERR_ARGUMENT;

  const uint32_t status = send_request(request, Hook::kAlwaysAsked);
  return status != ORP_OK ? status : ORP_MSG_RecvResWithAppName(request, responseOut, timeoutMs);
}

extern "C" uint32_t ORP_MSG_RecvResp(const ORP_MSG_HEADER_ST *request,
                                     ORP_MSG_HEADER_ST **responseOut, uint32_t timeoutMs) {
  if (responseOut != nullptr) *responseOut = nullptr;
  if (request == nullptr || responseOut == nullptr) return ORP_ERR_ARGUMENT;
  return receive_expected({request->ulMsgType, request->ulSeqNum, nullptr}, responseOut, timeoutMs);
}

extern "C" uint32_t ORP_MSG_RecvResWithAppName(const ORP_MSG_HEADER_ST *request,
                                               ORP_MSG_HEADER_ST **responseOut,
                                               uint32_t timeoutMs) {
  if (responseOut != nullptr) *responseOut = nullptr;
  if (request == nullptr || responseOut == nullptr) return ORP_ERR_ARGUMENT;
  return receive_expected({request->ulMsgType, request->ulSeqNum, request}, responseOut, timeoutMs);
}

extern "C" uint32_t ORP_MSG_ReceiveWithType(uint32_t type, ORP_MSG_HEADER_ST **messageOut,
                                            uint32_t timeoutMs) {
  if (messageOut == nullptr) return ORP_ERR_ARGUMENT;
  return receive_expected({type, 0, nullptr}, messageOut, timeoutMs);
}

extern "C" uint32_t ORP_MSG_SendAndRecvMsgData(const char *dstApp, uint32_t type, uint32_t data,
                                               uint32_t timeoutMs, uint32_t *resultOut) {
  if (resultOut == nullptr) return ORP_ERR_ARGUMENT;
  *resultOut = 0;

  Header request = build_header(text_or_empty(dstApp), type, data);
  const Result<Owned<Header>> reply = exchange(&request, timeoutMs);
  if (!reply) return code(reply.status());

  *resultOut = (*reply)->ulMsgData;
  return ORP_OK;
}

extern "C" uint32_t ORP_MSG_GetNumOfProcesses(const char *appName) {
  if (appName == nullptr) return 0;

  NameMessage request = build_name_message(ORP_MSG_COUNT_PROCESSES, 0, appName);
  const Result<Owned<Header>> reply = exchange(&request.header, kServerWait_ms);
  return reply ? (*reply)->ulMsgData : 0;
}

extern "C" uint32_t ORP_MSG_SafeExitProcesses(const char *appName) {
  return appName == nullptr ? ORP_OK : safe_exit(appName);
}
