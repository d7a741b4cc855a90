// The demo's subscriber: remembers the last event that it was told, and answers restful requests
// for /dev/info with it.

#include <cstring>
#include <string>

#include "msgapi.h"

namespace {

std::string g_last_event = "null";

uint32_t remember(uint32_t /*event_type*/, const void *data, uint32_t length) {
  g_last_event.assign(static_cast<const char *>(data), length);
  return 0;
}

uint32_t info(const ORP_MSG_RESTFUL_REQ_ST * /*request*/, char **response) {
  const std::string text = R"({"name": "demo gateway", "last_event": )" + g_last_event + "}";
  *response = ::strdup(text.c_str());
  return *response == nullptr ? 1 : 0;
}

const ORP_MSG_RESTFUL_ROW_ST kHandlers[] = {{"info", info}, {nullptr, nullptr}};

}  // namespace

int main() {
  ORP_MSG_RegisterMsgProc(ORP_MSG_DefaultMsgProc);
  ORP_EVT_SubscribeAllEventCallBack(remember);
  if (ORP_MSG_Init("status") != ORP_OK || ORP_EVT_SubscribeAllEvent() != ORP_OK ||
      ORP_MSG_RegRestfulProc("/dev", kHandlers) != ORP_OK) {
    return 1;
  }
  return ORP_MSG_GetAndDispatch() == ORP_OK ? 0 : 1;
}
