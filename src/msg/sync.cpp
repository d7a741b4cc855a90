// Synchronous requests: send, then read messages until the answer comes, putting aside the others.
//
// The first message of the right type (and, if requested, from the right sender) is the answer; the
// sequence number is deliberately not compared.

#include <string_view>

#include "base/drop_count.h"
#include "msg/context.h"
#include "msg/dispatch.h"
#include "msg/exchange.h"
#include "msg/queue.h"
#include "msg/receive.h"
#include "msg/send.h"
#include "os/clock.h"
#include "uv/default_loop.h"
#include "uv/trace_point.h"
#include "uv/watcher.h"

namespace msgapi::msg {
namespace {

using uv::kTraceLevel;

constexpr uint32_t kAnswerWait_ms = 60000;
constexpr uint32_t kServerWait_ms = 5000;
constexpr uint32_t kMaxQueued = 1000;

// What a wait looks for. The sequence number is for trace records only.
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

// True when the message is in the queue now; otherwise it has been dropped.
bool put_aside(Owned<Header> message) {
  const Status status = append_to_queue(&g_stMsgCtx.pstQueue, message.get(), 0);
  uv::MessageTrace(*message).put_aside(code(status));
  if (status != Status::kOk) {
    ++g_dropped.queue;
    return false;
  }
  (void)message.release();
  uv::skip_wait(uv::own_default_loop());
  return true;
}

// How a wait ended, and how many messages it put aside.
struct WaitEnd {
  Result<Owned<Header>> answer;
  uint32_t put_aside;
};

WaitEnd wait_for(const Expected &expected, uint32_t timeout_ms) {
  uint32_t queued = 0;
  uint64_t left_ms = timeout_ms == 0 ? kAnswerWait_ms : timeout_ms;
  for (;;) {
    if (g_stMsgCtx.slSocket < 0) return {Status::kBadArgument, queued};
    const Stopwatch watch;
    Result<Owned<Header>> received =
        receive_message(g_stMsgCtx.slSocket, static_cast<uint32_t>(left_ms), /*convert=*/true);
    if (!received) return {received.status(), queued};

    Owned<Header> message = std::move(*received);
    if (expected.is_failed_by(*message)) return {Status::kPeerGone, queued};
    if (expected.is_met_by(*message)) return {std::move(message), queued};

    // The clock is read only for a wait that goes on.
    const uint64_t elapsed_ms = watch.elapsed_ms();
    left_ms = elapsed_ms < left_ms ? left_ms - elapsed_ms : 0;
    if (put_aside(std::move(message))) ++queued;
    if (queued == kMaxQueued || left_ms == 0) return {Status::kTimeout, queued};
  }
}

Result<Owned<Header>> receive_expected(const Expected &expected, uint32_t timeout_ms) {
  ORP_TRACE_PrintInfo(__func__, __LINE__, 0, "msg", kTraceLevel,
                      "[start sync %u:0x%x] recv resp msg from [%.12s] now ...", expected.sequence,
                      expected.type, expected.from == nullptr ? "" : expected.from->aucRecvApp);

  WaitEnd end = wait_for(expected, timeout_ms);

  ORP_TRACE_PrintInfo(__func__, __LINE__, 0, "msg", kTraceLevel,
                      "[end sync %u:0x%x] finish resp msg with 0x%x, %u msg queued.",
                      expected.sequence, expected.type, code(end.answer.status()), end.put_aside);
  return std::move(end.answer);
}

// Whose answer counts. kReceiver: only that of the application to which the request is addressed.
enum class From { kAnyone, kReceiver };

Result<Owned<Header>> receive_answer(const Header &request, From from, uint32_t timeout_ms) {
  return receive_expected(
      {request.ulMsgType, request.ulSeqNum, from == From::kReceiver ? &request : nullptr},
      timeout_ms);
}

// A process that has no name yet, or is "mic", speaks to the server itself: no hook may divert it.
bool speaks_to_the_server(const Header &request) {
  return type_proper(request.ulMsgType) != ORP_MSG_REGISTER &&
         (own_name().empty() || own_name() == "mic");
}

bool is_for_this_process(const Header &request) {
  return type_proper(request.ulMsgType) != ORP_MSG_REGISTER && !own_name().empty() &&
         destination(request) == own_name();
}

Status send_request(Header *request, Hook hook) {
  request->ulSeqNum = next_sequence_number();
  if (is_for_this_process(*request)) {
    copy_cut(request->aucSendApp, own_name());
    take_in(request);
    return Status::kOk;
  }
  return send(request, hook);
}

Result<Owned<Header>> exchange_with_receiver(Header *request, uint32_t timeout_ms) {
  const Status sent = send_request(request, Hook::kAsked);
  if (sent != Status::kOk) return sent;
  return receive_answer(*request, From::kReceiver, timeout_ms);
}

// Both are tried whatever the first returns; the result is the bitwise OR of their codes.
uint32_t safe_exit(const char *application) {
  Header request = build_header(application, ORP_MSG_EXIT, 0);
  const Status asked = exchange(&request, kServerWait_ms).status();

  NameMessage notice = build_name_message(ORP_MSG_EXIT, 0, application);
  return code(asked) | code(send(&notice.header));
}

// Gives the answer to the caller, or sets *out to null: a procedure that ran meanwhile may have set
// it.
uint32_t hand_out(Result<Owned<Header>> answer, Header **out) {
  *out = answer ? answer->release() : nullptr;
  return code(answer.status());
}

}  // namespace

Result<Owned<Header>> exchange(Header *request, uint32_t timeout_ms) {
  const Hook hook = speaks_to_the_server(*request) ? Hook::kPassedBy : Hook::kAsked;
  const Status sent = send_request(request, hook);
  if (sent != Status::kOk) return sent;
  return receive_answer(*request, From::kAnyone, timeout_ms);
}

Result<uint32_t> exchange_for_data(Header *request, uint32_t timeout_ms) {
  const Result<Owned<Header>> reply = exchange(request, timeout_ms);
  if (!reply) return reply.status();
  return (*reply)->ulMsgData;
}

}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_MSG_SendAndRecv(ORP_MSG_HEADER_ST *request, ORP_MSG_HEADER_ST **responseOut,
                                        uint32_t timeoutMs) {
  if (responseOut != nullptr) *responseOut = nullptr;
  if (request == nullptr || responseOut == nullptr) return ORP_ERR_ARGUMENT;
  return hand_out(exchange(request, timeoutMs), responseOut);
}

extern "C" uint32_t ORP_MSG_SendAndReceiveWithAppName(ORP_MSG_HEADER_ST *request,
                                                      ORP_MSG_HEADER_ST **responseOut,
                                                      uint32_t timeoutMs) {
  if (responseOut != nullptr) *responseOut = nullptr;
  if (request == nullptr || responseOut == nullptr) return ORP_ERR_ARGUMENT;
  return hand_out(exchange_with_receiver(request, timeoutMs), responseOut);
}

extern "C" uint32_t ORP_MSG_RecvResp(const ORP_MSG_HEADER_ST *request,
                                     ORP_MSG_HEADER_ST **responseOut, uint32_t timeoutMs) {
  if (responseOut != nullptr) *responseOut = nullptr;
  if (request == nullptr || responseOut == nullptr) return ORP_ERR_ARGUMENT;
  return hand_out(receive_answer(*request, From::kAnyone, timeoutMs), responseOut);
}

extern "C" uint32_t ORP_MSG_RecvResWithAppName(const ORP_MSG_HEADER_ST *request,
                                               ORP_MSG_HEADER_ST **responseOut,
                                               uint32_t timeoutMs) {
  if (responseOut != nullptr) *responseOut = nullptr;
  if (request == nullptr || responseOut == nullptr) return ORP_ERR_ARGUMENT;
  return hand_out(receive_answer(*request, From::kReceiver, timeoutMs), responseOut);
}

extern "C" uint32_t ORP_MSG_ReceiveWithType(uint32_t type, ORP_MSG_HEADER_ST **messageOut,
                                            uint32_t timeoutMs) {
  if (messageOut == nullptr) return ORP_ERR_ARGUMENT;
  *messageOut = nullptr;
  return hand_out(receive_expected({type, 0, nullptr}, timeoutMs), messageOut);
}

extern "C" uint32_t ORP_MSG_SendAndRecvMsgData(const char *dstApp, uint32_t type, uint32_t data,
                                               uint32_t timeoutMs, uint32_t *resultOut) {
  if (resultOut == nullptr) return ORP_ERR_ARGUMENT;
  *resultOut = 0;

  Header request = build_header(text_or_empty(dstApp), type, data);
  const Result<uint32_t> answer = exchange_for_data(&request, timeoutMs);
  if (answer) *resultOut = *answer;
  return code(answer.status());
}

extern "C" uint32_t ORP_MSG_GetNumOfProcesses(const char *appName) {
  if (appName == nullptr) return 0;

  NameMessage request = build_name_message(ORP_MSG_COUNT_PROCESSES, 0, appName);
  const Result<uint32_t> count = exchange_for_data(&request.header, kServerWait_ms);
  return count ? *count : 0;
}

extern "C" uint32_t ORP_MSG_SafeExitProcesses(const char *appName) {
  return appName == nullptr ? ORP_OK : safe_exit(appName);
}
