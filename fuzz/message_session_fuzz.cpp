// A whole session with a message server that may send anything: registration, then messages that
// are received directly, in synchronous waits, or by the event loop, and dispatched.
//
// Input: one byte of choices (1: event loop, 2: the server confirms the registration by itself,
// 4: swapped byte order), then what the server sends until it closes.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "msgapi/event.h"
#include "msgapi/loop.h"
#include "msgapi/msg.h"

namespace {

constexpr uint32_t kType = 0x1234;
constexpr char kHandOverFile[] = "/var/run/msg/msg_file_1";

int g_listener;
int g_server;
std::string g_script;
uint32_t g_sum;

// Reads every byte that a procedure may: the body and the zeros behind it.
void read_message(ORP_MSG_HEADER_ST *message) {
  const auto *body = reinterpret_cast<const uint8_t *>(message + 1);
  for (uint32_t i = 0; i < message->ulDataLen; ++i) g_sum += body[i];
  for (uint32_t i = 0; i < 16; ++i) {
    if (body[message->ulDataLen + i] != 0) std::abort();
  }
  if (message->ulMsgType > ORP_MSG_TYPE_MASK) std::abort();
}

ORP_MSG_HEADER_ST *answer_message(ORP_MSG_HEADER_ST *message) {
  read_message(message);
  return ORP_MSG_MsgRespBuilder(message, 0, "answer", 6);
}

void take_answer(ORP_MSG_HEADER_ST *message, uint32_t /*timed_out*/, ORP_WORD /*data*/) {
  if (message != nullptr) read_message(message);
}

// Gets every message that the library sends, in place of the socket. When the registration comes,
// it plays the server: it accepts the connection and sends the whole input.
uint32_t play_server(ORP_MSG_HEADER_ST *message, uint32_t *handled, int32_t * /*descriptor*/) {
  *handled = 1;
  if (message->ulMsgType != ORP_MSG_REGISTER) return ORP_OK;

  g_server = ::accept(g_listener, nullptr, nullptr);
  if (::send(g_server, g_script.data(), g_script.size(), 0) !=
      static_cast<ssize_t>(g_script.size())) {
    std::abort();
  }
  ::shutdown(g_server, SHUT_WR);
  return ORP_OK;
}

std::string registration_reply(bool swap) {
  ORP_MSG_HEADER_ST header = {};
  header.ulMsgType = ORP_MSG_REGISTER;
  std::strcpy(header.aucRecvApp, "self");
  header.ulMsgData = swap ? 1 : 0;
  header.ulDataLen = 8;
  return std::string(reinterpret_cast<const char *>(&header), sizeof header) + std::string(8, '\0');
}

void prepare() {
  // Without the diagnostics of refused messages.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
  g_listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, ORP_MSG_SERVER_PATH);
  if (::bind(g_listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
      ::listen(g_listener, 1) != 0) {
    std::abort();
  }
  g_pfMsgSendHook = play_server;
  ORP_MSG_RegMsgProcEx(kType, read_message, answer_message, 0, nullptr);
  // Without a procedure for it, this message would end the process of a daemon with certain names.
  ORP_MSG_RegMsgProc(ORP_MSG_EXIT, read_message, 0, nullptr);
  ORP_EVT_SubscribeAllEventCallBack([](uint32_t, const void *data, uint32_t length) -> uint32_t {
    for (uint32_t i = 0; i < length; ++i) g_sum += static_cast<const uint8_t *>(data)[i];
    return 0;
  });
}

void write_hand_over_file() {
  const int file = ::open(kHandOverFile, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (file < 0 || ::write(file, "body", 4) != 4) std::abort();
  ::close(file);
}

void use_without_loop() {
  if (ORP_MSG_InitWithoutHandle("self") != ORP_OK) std::abort();
  ORP_MSG_RegisterMsgProc(ORP_MSG_DefaultMsgProc);
  for (uint32_t status = ORP_OK; status == ORP_OK || status == ORP_ERR_MEMORY;) {
    ORP_MSG_HEADER_ST *message = nullptr;
    status = ORP_MSG_ReceiveManual(&message, 1000);
    if (message != nullptr) ORP_MSG_FilterProc(message);
    std::free(message);
    if (status != ORP_OK) break;

    ORP_MSG_HEADER_ST request;
    ORP_MSG_SimpleBuilder(&request, "peer", kType, 0);
    status = ORP_MSG_SendAndReceiveWithAppName(&request, &message, 1000);
    if (message != nullptr) read_message(message);
    std::free(message);
  }
  ORP_MSG_QueueClear();
}

void use_with_loop() {
  if (ORP_MSG_Init("self") != ORP_OK) std::abort();
  ORP_MSG_RegisterMsgProc(ORP_MSG_DefaultMsgProc);
  ORP_MSG_HEADER_ST request;
  ORP_MSG_SimpleBuilder(&request, "peer", kType, 0);
  (void)ORP_MSG_AsyncSendAndReceive(&request, 1, 0, take_answer);
  (void)ORP_UV_LoopRun(nullptr, 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool prepared = (prepare(), true);
  if (!prepared || size < 1 || size > 65536) return 0;
  const uint8_t choices = data[0];
  g_script.assign(reinterpret_cast<const char *>(data + 1), size - 1);
  if ((choices & 2) != 0) g_script.insert(0, registration_reply((choices & 4) != 0));
  write_hand_over_file();

  if ((choices & 1) != 0) {
    use_with_loop();
  } else {
    use_without_loop();
  }

  ORP_MSG_DestroyQueue(&g_stMsgCtx.pstQueue);
  ORP_MSG_Destroy();
  ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
  ::close(g_server);
  return 0;
}
