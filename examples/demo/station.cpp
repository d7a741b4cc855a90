// The demo's answering daemon: registered as "cms", it answers the panel's requests, logs them and
// notifies the panel of every reading.
// It survives restarts of every server.

#include <utility>
#include <vector>

#include "messages.h"
#include "msgapi.h"
#include "msgapi/kit.h"

namespace {

uint32_t g_readings;

ORP_MSG_HEADER_ST *read_temperature(ORP_MSG_HEADER_ST *request) {
  mlog_print("cms", MLOG_LEVEL_INFO, "%s reads the temperature", request->aucSendApp);
  ORP_NOTIFYCLT_PostSimpleAsynNotify(ORP_NOTIFYCLT_GetMIDByName("web"), kTemperatureRead,
                                     ++g_readings, kTemperature);
  return ORP_MSG_MsgRespBuilder(request, kTemperature, nullptr, 0);
}

ORP_MSG_HEADER_ST *read_history(ORP_MSG_HEADER_ST *request) {
  std::vector<uint8_t> history(kHistorySize);
  for (size_t i = 0; i < history.size(); ++i) history[i] = static_cast<uint8_t>(i % 251);
  mlog_print("cms", MLOG_LEVEL_INFO, "%s reads the history", request->aucSendApp);
  return ORP_MSG_MsgRespBuilder(request, 0, history.data(), kHistorySize);
}

ORP_MSG_HEADER_ST *measure(ORP_MSG_HEADER_ST *request) {
  return ORP_MSG_MsgRespBuilder(request, request->ulMsgData + 1, nullptr, 0);
}

uint32_t start() {
  using Procedure = std::pair<uint32_t, ORP_MSG_SYNC_PROC>;
  for (const auto &[type, procedure] :
       {Procedure{kReadTemperature, read_temperature}, Procedure{kReadHistory, read_history},
        Procedure{kMeasure, measure}}) {
    const uint32_t status = ORP_MSG_RegisterSyncMsgProc(type, procedure, 0, nullptr);
    if (status != ORP_OK) return status;
  }
  mlog_print("cms", MLOG_LEVEL_INFO,
             "sensor 00:11:22:33:44:55 at 192.168.1.10 and fe80::211:22ff:fe33:4455, serial "
             "ABCDEFGHIJKLMNOP");
  return ORP_OK;
}

}  // namespace

int main() {
  const MSGKIT_DAEMON_ST daemon = {"cms", start, nullptr, nullptr, nullptr};
  return msgkit_run_daemon(&daemon);
}
