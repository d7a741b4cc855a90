// The demo's asking daemon: registered as "web", it asks the station in every way there is, prints
// what came of it, and exits with the number of steps that did not go as they should.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "messages.h"
#include "msgapi.h"

namespace {

constexpr uint32_t kPatience_ms = 3000;

int g_failures;
bool g_answered;
bool g_notified;

void report(const std::string &step, bool succeeded) {
  std::printf("panel: %-66s %s\n", step.c_str(), succeeded ? "ok" : "FAILED");
  std::fflush(stdout);
  if (!succeeded) ++g_failures;
}

std::string hexadecimal(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", value);
  return text;
}

// Waits for the other daemon, which starts at the same time.
void find_the_station() {
  uint32_t stations = 0;
  for (int tries = 0; stations == 0 && tries < 250; ++tries) {
    stations = ORP_MSG_GetNumOfProcesses("cms");
    if (stations == 0) ::usleep(20000);
  }
  report("the station is registered", stations == 1);
}

void ask_for_the_temperature() {
  uint32_t temperature = 0;
  const uint32_t status =
      ORP_MSG_SendAndRecvMsgData("cms", kReadTemperature, 0, kPatience_ms, &temperature);
  report("a request is answered: " + std::to_string(temperature) + " hundredths of a degree",
         status == ORP_OK && temperature == kTemperature);
}

void ask_for_the_history() {
  ORP_MSG_HEADER_ST request;
  ORP_MSG_SimpleBuilder(&request, "cms", kReadHistory, 0);
  ORP_MSG_HEADER_ST *answer = nullptr;
  const uint32_t status = ORP_MSG_SendAndRecv(&request, &answer, kPatience_ms);

  bool intact = status == ORP_OK && answer->ulDataLen == kHistorySize;
  if (intact) {
    const auto *bytes = static_cast<const uint8_t *>(ORP_MSG_GetMsgByHeader(answer));
    for (uint32_t i = 0; i < kHistorySize && intact; ++i) intact = bytes[i] == i % 251;
  }
  report("a body of " + std::to_string(kHistorySize) + " bytes arrives whole", intact);
  std::free(answer);
}

void ask_nobody() {
  uint32_t result;
  const uint32_t status = ORP_MSG_SendAndRecvMsgData("nobody", 0x1234, 0, kPatience_ms, &result);
  report("a request to nobody is reported undeliverable: status " + hexadecimal(status),
         status == ORP_ERR_PEER_GONE);
}

void stop_when_complete() {
  if (g_answered && g_notified) OrpUvLoopStop(OrpUvLoopGetDefault());
}

void take_measurement(ORP_MSG_HEADER_ST *answer, uint32_t timed_out, ORP_WORD /*data*/) {
  report("an asynchronous request is answered by the loop",
         timed_out == 0 && answer->ulMsgData == 42);
  g_answered = true;
  stop_when_complete();
}

void measure_later() {
  ORP_MSG_HEADER_ST request;
  ORP_MSG_SimpleBuilder(&request, "cms", kMeasure, 41);
  if (ORP_MSG_AsyncSendAndReceive(&request, kPatience_ms, 0, take_measurement) != ORP_OK) {
    report("an asynchronous request is sent", false);
  }
}

void on_temperature_read(void *first, void *second) {
  if (g_notified) return;
  const bool complete = first != nullptr && second != nullptr;
  const uint32_t readings = complete ? *static_cast<uint32_t *>(first) : 0;
  const uint32_t temperature = complete ? *static_cast<uint32_t *>(second) : 0;
  report("a notification of reading " + std::to_string(readings) + " arrives",
         readings > 0 && temperature == kTemperature);
  g_notified = true;
  stop_when_complete();
}

// The notify server may not have known us yet when it was asked to notify us: registration there is
// not answered.
void read_again(ORP_WORD /*data*/) {
  if (!g_notified) ORP_MSG_SendSimpleMsg("cms", kReadTemperature, 0);
}

void give_up(ORP_WORD /*data*/) {
  report("everything came in time", false);
  OrpUvLoopStop(OrpUvLoopGetDefault());
}

}  // namespace

int main() {
  const uint32_t status = ORP_MSG_Init("web");
  report("connected and registered", status == ORP_OK && g_stMsgCtx.slSocket >= 0);
  if (g_failures > 0) return 1;
  ORP_NOTIFYCLT_RegAsyncMsgProc(kTemperatureRead, on_temperature_read);

  mlog_print("web", MLOG_LEVEL_INFO, "the panel starts");
  find_the_station();
  ask_for_the_temperature();
  ask_for_the_history();
  ask_nobody();
  measure_later();

  ORP_UTIL_TimerAdd(200, 0, read_again, 0);
  ORP_UTIL_TimerAdd(2 * kPatience_ms, 1, give_up, 0);
  ORP_MSG_GetAndDispatch();
  mlog_print("web", MLOG_LEVEL_INFO, "the panel ends, %d failures", g_failures);
  report("the log server has written everything", MlogFlushLog() == 0);
  return g_failures;
}
