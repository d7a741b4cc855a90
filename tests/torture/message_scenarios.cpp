// Scenarios through the servers: messages, events, restful requests, notifications, log lines.

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "msgapi.h"
#include "scenario.h"

namespace torture {
namespace {

constexpr const char *kName = "torture";
constexpr uint32_t kAsk = 0x1234;
constexpr uint32_t kOwn = 0x1235;
constexpr uint32_t kNotice = 0x77;
constexpr uint32_t kOwnModule = 8;
constexpr uint32_t kServantModule = 26;
// Everything comes at once, except for messages that a failure has lost.
constexpr uint32_t kPatience_ms = 700;

using Statuses = std::initializer_list<int64_t>;
const Statuses kSendStatuses = {ORP_ERR_NOT_CONNECTED, ORP_ERR_PEER_GONE, ORP_ERR_NOT_WRITABLE,
                                ORP_ERR_HAND_OVER,     ORP_ERR_SYSTEM,    ORP_ERR_MEMORY};
const Statuses kRequestStatuses = {ORP_ERR_NOT_CONNECTED, ORP_ERR_PEER_GONE, ORP_ERR_NOT_WRITABLE,
                                   ORP_ERR_HAND_OVER,     ORP_ERR_SYSTEM,    ORP_ERR_MEMORY,
                                   ORP_ERR_TIMEOUT,       ORP_ERR_ARGUMENT};

// Runs `work` over a connection of this process.
template <auto *connect, auto *work>
bool connected() {
  const uint32_t status = connect(kName);
  const bool done =
      succeeded(status, {ORP_ERR_SOCKET, ORP_ERR_MEMORY}) && g_stMsgCtx.slSocket >= 0 && work();
  ORP_MSG_Destroy();
  ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
  return done;
}

bool run_loop() {
  return succeeded(OrpUvLoopRun(nullptr, kPatience_ms), {ORP_ERR_TIMEOUT, ORP_ERR_SYSTEM});
}

void stop_loop() {
  OrpUvLoopStop(OrpUvLoopGetDefault());
}

// What the bodies of messages are: letters, of which no two neighbours are the same.
constexpr auto kPattern = [] {
  std::array<char, 0x10000> letters{};
  for (uint32_t i = 0; i < letters.size(); ++i) letters[i] = static_cast<char>('a' + i * 7 % 26);
  return letters;
}();

bool is_pattern(const ORP_MSG_HEADER_ST *message, uint32_t size) {
  return message->ulDataLen == size && std::memcmp(message + 1, kPattern.data(), size) == 0;
}

// A message with a body of `size` bytes, in static memory: making it must not fail.
ORP_MSG_HEADER_ST *message_with(uint32_t size, uint32_t type, const char *receiver) {
  alignas(8) static char memory[ORP_MSG_HEADER_SIZE + kPattern.size()];
  auto *message = reinterpret_cast<ORP_MSG_HEADER_ST *>(memory);
  ORP_MSG_SimpleBuilder(message, receiver, type, 5);
  std::memcpy(message + 1, kPattern.data(), size);
  message->ulDataLen = size;
  return message;
}

bool connect_alone() {
  const uint32_t count = ORP_MSG_GetNumOfProcesses(kName);
  return must(count <= 1, "one process is counted once") && count == 1;
}

bool connect_with_loop() {
  return succeeded(ORP_MSG_SendSimpleMsg(kMessageServant, kOwn, 0), kSendStatuses);
}

bool request() {
  for (const uint32_t size : {0u, 2048u, 0x10000u}) {
    ORP_MSG_HEADER_ST *answer = nullptr;
    const uint32_t status =
        ORP_MSG_SendAndRecv(message_with(size, kAsk, kMessageServant), &answer, kPatience_ms);
    if (!succeeded(status, kRequestStatuses)) {
      must(answer == nullptr, "no answer with a failure");
      return false;
    }
    const bool right = must(is_pattern(answer, size), "an answer is what was sent");
    std::free(answer);
    if (!right) return false;
  }
  return true;
}

uint32_t g_answers;
uint32_t g_timed_out;

bool asynchronous_request() {
  g_answers = g_timed_out = 0;
  const auto answered = [](ORP_MSG_HEADER_ST *message, uint32_t timed_out, ORP_WORD) {
    ++g_answers;
    g_timed_out = timed_out;
    if (message != nullptr) must(is_pattern(message, 3000), "an answer is what was sent");
    stop_loop();
  };
  const uint32_t status = ORP_MSG_AsyncSendAndReceive(message_with(3000, kAsk, kMessageServant),
                                                      kPatience_ms / 2, 0, answered);
  return succeeded(status, kRequestStatuses) && run_loop() &&
         must(g_answers == 1, "a callback is called once") && g_timed_out == 0;
}

// A message to oneself passes through the loop twice: as a request, then as its answer.
uint32_t g_rounds;

bool dispatch() {
  g_rounds = 0;
  ORP_MSG_RegisterMsgProc(ORP_MSG_DefaultMsgProc);
  ORP_MSG_REG_HANDLE handle = nullptr;
  const auto answer = [](ORP_MSG_HEADER_ST *message) -> ORP_MSG_HEADER_ST * {
    must(is_pattern(message, 4000), "a message is what was sent");
    if (++g_rounds == 2) {
      stop_loop();
      return nullptr;
    }
    return ORP_MSG_MsgRespBuilder(message, 1, ORP_MSG_GetMsgByHeader(message), message->ulDataLen);
  };
  const bool ran =
      succeeded(ORP_MSG_RegisterSyncMsgProc(kOwn, answer, 1, &handle), {ORP_ERR_MEMORY}) &&
      succeeded(ORP_MSG_Send(message_with(4000, kOwn, kName)), kSendStatuses) && run_loop();
  ORP_MSG_UnRegisterMsgProc(handle);
  return ran && g_rounds == 2;
}

uint32_t g_events;

uint32_t on_event(uint32_t type, const void *data, uint32_t length) {
  must(type == ORP_MSG_EVENT_WAN && std::strlen(static_cast<const char *>(data)) == length &&
           std::strstr(static_cast<const char *>(data), "connected") != nullptr,
       "an event is what was published");
  if (++g_events == 2) stop_loop();
  return 0;
}

bool event() {
  g_events = 0;
  ORP_MSG_RegisterMsgProc(ORP_MSG_DefaultMsgProc);
  ORP_EVT_SubscribeAllEventCallBack(on_event);
  const Statuses statuses = {ORP_EVT_ERR,           ORP_DMMSG_ERR_MEMORY, ORP_DMMSG_ERR_GROW,
                             ORP_ERR_NOT_CONNECTED, ORP_ERR_PEER_GONE,    ORP_ERR_NOT_WRITABLE,
                             ORP_ERR_HAND_OVER,     ORP_ERR_SYSTEM,       ORP_ERR_MEMORY};
  ORP_UTIL_NV_PAIR_ST pair = {nullptr, const_cast<char *>("link"), const_cast<char *>("connected")};
  return succeeded(ORP_MSG_SubscribeEventForOtherApp(ORP_MSG_EVENT_WAN, kName), kSendStatuses) &&
         succeeded(ORP_EVT_PublishEvent(ORP_MSG_EVENT_WAN, "state", "link", "connected"),
                   statuses) &&
         succeeded(ORP_EVT_PublishEventWithNVPair(ORP_MSG_EVENT_WAN, "state", &pair), statuses) &&
         run_loop() && g_events == 2;
}

uint32_t echo_text(const ORP_MSG_RESTFUL_REQ_ST *request, char **response) {
  *response = ::strdup(ORP_MSG_RESTFUL_TEXT(request));
  return *response == nullptr ? 1 : 0;
}
const ORP_MSG_RESTFUL_ROW_ST kRows[] = {{"echo", echo_text}, {nullptr, nullptr}};

bool restful() {
  if (!succeeded(ORP_MSG_RegRestfulProcEx(kName, kRows, 1), kSendStatuses)) return false;
  ORP_MSG_HEADER_ST *message =
      ORP_MSG_BuildRestfulReqMsg(1, 2, kMessageServant, "echo", "{\"a\":1}", 8);
  if (message == nullptr) return false;
  ORP_MSG_HEADER_ST *answer = nullptr;
  const uint32_t status = ORP_MSG_SendAndRecv(message, &answer, kPatience_ms);
  std::free(message);
  if (!succeeded(status, kRequestStatuses)) return false;
  const bool right = answer->ulDataLen >= 7 &&
                     std::strstr(reinterpret_cast<char *>(answer + 1), "{\"a\":1}") != nullptr;
  // A servant without memory answers without a text. That is no fault.
  std::free(answer);
  return right;
}

// Both ends belong to this process, so that it can look at what was passed.
bool descriptor() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return false;
  const int before = g_stMsgCtx.slSocket;
  g_stMsgCtx.slSocket = ends[0];
  bool done = succeeded(ORP_MSG_SendFd(STDIN_FILENO), {ORP_ERR_MEMORY, ORP_ERR_SYSTEM});
  g_stMsgCtx.slSocket = ends[1];
  int32_t received = -1;
  if (done) {
    done = succeeded(ORP_MSG_RecvFd(&received, kPatience_ms),
                     {ORP_ERR_TIMEOUT, ORP_ERR_MEMORY, ORP_ERR_PEER_GONE, ORP_ERR_SYSTEM});
    must(done == (received > 0), "a descriptor comes with ORP_OK alone");
  }
  if (received > 0) ::close(received);
  g_stMsgCtx.slSocket = before;
  ::close(ends[0]);
  ::close(ends[1]);
  return done;
}

bool log_lines() {
  for (uint32_t i = 0; i < 3; ++i) MlogPrint(kName, MLOG_LEVEL_INFO, "line %u of 10.11.12.13", i);
  mlog_print(kName, MLOG_LEVEL_WARN, "%300s", "long");
  if (!succeeded(MlogSetStatInfo(kName, "fine"), {MLOG_ERR, MLOG_ERR_SOCKET})) return false;
  char text[256];
  if (!succeeded(MlogGetStatInfo(kName, text, sizeof text), {MLOG_ERR, MLOG_ERR_SOCKET})) {
    return must(text[0] == '\0', "no statistics after a failure") && false;
  }
  return must(std::strcmp(text, "fine") == 0, "statistics are what was set") &&
         succeeded(MlogFlushLog(), {MLOG_ERR, MLOG_ERR_SOCKET});
}

uint32_t g_notices;

void on_notice(void *first, void *) {
  ++g_notices;
  must(first != nullptr && *static_cast<uint32_t *>(first) == 5,
       "a notification is what was posted");
  stop_loop();
}

bool notify() {
  g_notices = 0;
  const Statuses statuses = {ORP_NOTIFYCLT_ERR_SOCKET,      ORP_NOTIFYCLT_ERR_ARGUMENT,
                             ORP_NOTIFYCLT_ERR_PEER_GONE,   ORP_NOTIFYCLT_ERR_TIMEOUT,
                             ORP_NOTIFYCLT_ERR_MEMORY,      ORP_NOTIFYCLT_ERR_IO,
                             ORP_NOTIFYCLT_ERR_NOT_WRITABLE};
  void *reply = nullptr;
  uint32_t length = 0;
  bool done = succeeded(ORP_NOTIFYCLT_Init(kOwnModule), statuses) &&
              succeeded(ORP_NOTIFYCLT_RegAsyncMsgProc(kNotice, on_notice), statuses) &&
              // The request puts it aside.
              succeeded(ORP_NOTIFYCLT_PostSimpleAsynNotify(kOwnModule, kNotice, 5, 6), statuses) &&
              succeeded(ORP_NOTIFYCLT_SendSynNotify(kServantModule, kAsk, "ask", 4, &reply, &length,
                                                    nullptr),
                        statuses);
  if (!done) must(reply == nullptr, "no reply with a failure");
  if (done) must(length == 4 && std::memcmp(reply, "ask", 4) == 0, "a reply is what was sent");
  std::free(reply);
  done = done && run_loop() && g_notices == 1;
  ORP_NOTIFYCLT_Destroy();
  ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
  return done;
}

constexpr Scenario kMessageScenarios[] = {
    {"asynchronous_request", connected<ORP_MSG_Init, asynchronous_request>},
    {"connect", connected<ORP_MSG_InitWithoutHandle, connect_alone>},
    {"connect_with_loop", connected<ORP_MSG_Init, connect_with_loop>},
    {"descriptor", descriptor},
    {"dispatch", connected<ORP_MSG_Init, dispatch>},
    {"event", connected<ORP_MSG_Init, event>},
    {"log", log_lines},
    {"notify", notify},
    {"request", connected<ORP_MSG_InitWithoutHandle, request>},
    {"restful", connected<ORP_MSG_Init, restful>},
};

ORP_MSG_HEADER_ST *echo_body(ORP_MSG_HEADER_ST *message) {
  return ORP_MSG_MsgRespBuilder(message, 1, ORP_MSG_GetMsgByHeader(message), message->ulDataLen);
}

void echo_data(void *data, uint32_t *length, void **reply) {
  *length = 4;
  *reply = std::malloc(4);
  if (data != nullptr) std::memcpy(*reply, data, 4);
}

}  // namespace

std::span<const Scenario> message_scenarios() {
  return kMessageScenarios;
}

void serve_messages(void (*ready)()) {
  if (ORP_MSG_Init(kMessageServant) != ORP_OK) ::_exit(1);
  ORP_MSG_RegisterMsgProc(ORP_MSG_DefaultMsgProc);
  ORP_MSG_RegisterSyncMsgProc(kAsk, echo_body, 1, nullptr);
  ORP_MSG_RegRestfulProc(kMessageServant, kRows);
  ready();
  OrpUvLoopRun(nullptr, 0);
  ::_exit(0);
}

void serve_notifications(void (*ready)()) {
  if (ORP_NOTIFYCLT_Init(kServantModule) != ORP_NOTIFYCLT_OK) ::_exit(1);
  ORP_NOTIFYCLT_RegSyncMsgProc(kAsk, echo_data);
  ready();
  OrpUvLoopRun(nullptr, 0);
  ::_exit(0);
}

}  // namespace torture
