// One-line requests to the message server, and the hooks of software upgrades.

#include "msg/config_request.h"
#include "msg/exchange.h"
#include "msgapi/device.h"

namespace msgapi {
namespace {

constexpr uint32_t kFactoryModeTimeoutMs = 2000;

constexpr char kServer[] = "";

uint32_t ask_factory_mode() {
  msg::Header request = msg::build_header(kServer, ORP_MSG_FACTORY_MODE, 0);
  const Result<Owned<msg::Header>> reply = msg::exchange(&request, kFactoryModeTimeoutMs);
  return reply ? (*reply)->ulMsgData : 0;
}

}  // namespace
}  // namespace msgapi

using namespace msgapi;

extern "C" uint32_t ORP_APP_SendSysguardHeartBeat() {
  return ORP_MSG_SendSimpleMsg(kServer, ORP_MSG_KEEP_ALIVE, 0);
}

extern "C" uint32_t ORP_APP_StopSysguard() {
  return ORP_MSG_SendSimpleMsg(kServer, ORP_MSG_STOP_WATCHDOG, 0);
}

extern "C" uint32_t ORP_UTIL_Reboot(uint32_t mode) {
  return msg::request_reboot(mode);
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
