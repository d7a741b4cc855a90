// The demo's subscriber: remembers the last event that it was told, and answers restful requests
// for /dev/info with it.

#include <cstring>
#include <string>

#include "msgapi.h"
#include "msgapi/kit.h"

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

uint32_t start() {
  const uint32_t status = msgkit_subscribe(ORP_MSG_ALL_EVENTS, remember);
  return status != ORP_OK ? status : msgkit_serve_path("/dev", kHandlers, 0);
}

}  // namespace

int main() {
  const MSGKIT_DAEMON_ST daemon = {"status", start, nullptr, nullptr, nullptr};
  return msgkit_run_daemon(&daemon);
}
