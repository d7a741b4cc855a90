// Restful requests from other processes, handed to the registered handlers.

#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "msgapi/restful.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

// Reads everything that a handler may read.
uint32_t handle(const ORP_MSG_RESTFUL_REQ_ST *request, char **response) {
  *response = ::strdup(ORP_MSG_RESTFUL_TEXT(request));
  require(std::strlen(request->aucPath) > 0);
  require(std::strlen(request->aucHandler) > 0);
  return request->ulCode;
}

constexpr ORP_MSG_RESTFUL_ROW_ST kTable[] = {{"h", handle}, {nullptr, nullptr}};

int make_connection() {
  int ends[2];
  require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
  g_stMsgCtx.slSocket = ends[0];
  require(ORP_MSG_RegRestfulProc("/p", kTable) == ORP_OK);
  return ends[1];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const int peer = make_connection();
  auto *message = static_cast<ORP_MSG_HEADER_ST *>(std::malloc(ORP_MSG_HEADER_SIZE + size));
  *message = {};
  message->ulMsgType = ORP_MSG_RESTFUL_REQUEST;
  message->ulDataLen = static_cast<uint32_t>(size);
  if (size > 0) std::memcpy(message + 1, data, size);

  ORP_MSG_DefaultMsgProcs(message);

  char responses[8192];
  while (::recv(peer, responses, sizeof responses, MSG_DONTWAIT) > 0) {
  }
  std::free(message);
  return 0;
}
