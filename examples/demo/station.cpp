// The demo's answering daemon: registered as "cms", it answers the panel's requests, logs them and
// notifies the panel of every reading.

#include <vector>

#include "messages.h"
#include "msgapi.h"

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

}  // namespace

int main() {
  ORP_MSG_RegisterMsgProc(ORP_MSG_DefaultMsgProc);
  if (ORP_MSG_RegisterSyncMsgProc(kReadTemperature, read_temperature, 0, nullptr) != ORP_OK ||
      ORP_MSG_RegisterSyncMsgProc(kReadHistory, read_history, 0, nullptr) != ORP_OK ||
      ORP_MSG_RegisterSyncMsgProc(kMeasure, measure, 0, nullptr) != ORP_OK ||
      ORP_MSG_Init("cms") != ORP_OK) {
    return 1;
  }
  mlog_print("cms", MLOG_LEVEL_INFO,
             "sensor 00:11:22:33:44:55 at 192.168.1.10 and fe80::211:22ff:fe33:4455, serial "
             "ABCDEFGHIJKLMNOP");
  return ORP_MSG_GetAndDispatch() == ORP_OK ? 0 : 1;
}
