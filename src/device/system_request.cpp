// One-line requests to the message server, and the hooks of software upgrades.

#include "msg/config_request.h"
#include "msg/exchange.h"
#include "msg/send.h"
#include "msgapi/device.h"

namespace msgapi::device {
namespace {

constexpr uint32_t kFactoryModeTimeoutMs = 2000;

uint32_t ask_factory_mode() {
  msg::Header request = msg::build_header(msg::kServer, ORP_MSG_FACTORY_MODE, 0);
  const Result<uint32_t> mode = msg::exchange_for_data(&request, kFactoryModeTimeoutMs);
  return mode ? *mode : 0;
}

}  // namespace
}  // namespace msgapi::device

using namespace msgapi;
using namespace msgapi::device;

extern "C" uint32_t ORP_APP_SendSysguardHeartBeat() {
  return code(msg::send_header(msg::kServer, ORP_MSG_KEEP_ALIVE, 0));
}

extern "C" uint32_t ORP_APP_StopSysguard() {
  return code(msg::send_header(msg::kServer, ORP_MSG_STOP_WATCHDOG, 0));
}

extern "C" uint32_t ORP_UTIL_Reboot(uint32_t mode) {
  return code(msg::request_reboot(mode));
}

extern "C" uint32_t ORP_APP_IsFactoryMode() {
  return ask_factory_mode();
}

extern "C" uint32_t ORP_UPG_PreDownloadProtect(uint32_t /*first*/, uint32_t /*second*/) {
  ZotaUpgFreeSpecificMem();
  return 1;
}

extern "C" uint32_t ORP_UPG_ReleaseAllProtect() {
  ZotaUpgRestartSpecificProc();
  return 1;
}

extern "C" void ZotaUpgFreeSpecificMem() {}

extern "C" void ZotaUpgRestartSpecificProc() {}
