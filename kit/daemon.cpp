// A daemon's main program.

#include <signal.h>

#include <cstdlib>
#include <cstring>

#include "msgapi/kit.h"
#include "msgapi/log.h"
#include "msgapi/loop.h"

namespace {

constexpr uint32_t kStopAgain_ms = 10;

const MSGKIT_DAEMON_ST *g_daemon;
bool g_ending;
char g_exit_asked_by[ORP_APP_NAME_SIZE];  // empty: nobody
OrpUvTimer *g_stop_again;

void stop_loop(ORP_WORD /*data*/) {
  OrpUvLoopStop(OrpUvLoopGetDefault());
}

void end(const char *reason, const char *who) {
  mlog_print(g_daemon->pcName, MLOG_LEVEL_INFO, "Ends: %s%s.", reason, who);
  g_ending = true;
  stop_loop(0);
  // A procedure may be running the loop: this stop then ends only its run.
  if (g_stop_again == nullptr) g_stop_again = ORP_UTIL_TimerAdd(kStopAgain_ms, 0, stop_loop, 0);
}

void end_on_signal(int32_t signal) {
  end(signal == SIGTERM ? "SIGTERM" : "SIGINT", "");
}

void reload(int32_t /*signal*/) {
  if (g_daemon->pfReload != nullptr) g_daemon->pfReload();
}

void end_on_request(ORP_MSG_HEADER_ST *request) {
  std::memcpy(g_exit_asked_by, request->aucSendApp, sizeof g_exit_asked_by - 1);
  end("asked to exit by ", g_exit_asked_by);
}

uint32_t start() {
  struct {
    int signal;
    MSGKIT_SIGNAL_PROC procedure;
  } constexpr kSignals[] = {{SIGTERM, end_on_signal}, {SIGINT, end_on_signal}, {SIGHUP, reload}};
  for (const auto &each : kSignals) {
    const uint32_t status = msgkit_on_signal(each.signal, each.procedure);
    if (status != ORP_OK) return status;
  }
  uint32_t status = ORP_MSG_RegMsgProc(ORP_MSG_EXIT, end_on_request, 0, nullptr);
  if (status == ORP_OK && g_daemon->pfStart != nullptr) status = g_daemon->pfStart();
  if (status != ORP_OK) return status;
  return msgkit_stay_connected(g_daemon->pcName, g_daemon->pfChanged);
}

uint32_t run_loop() {
  const uint32_t status = g_ending ? ORP_OK : ORP_MSG_GetAndDispatch();
  OrpTimerSafeDel(&g_stop_again);
  return status;
}

void finish() {
  if (g_daemon->pfStop != nullptr) g_daemon->pfStop();
  if (g_exit_asked_by[0] != '\0') {
    (void)ORP_MSG_SendSimpleMsg(g_exit_asked_by, ORP_MSG_EXIT, 0);
  }
  msgkit_disconnect();
}

int fail(const char *what, uint32_t status) {
  mlog_print(g_daemon->pcName, MLOG_LEVEL_ERROR, "%s: %s (0x%x): %s.", what,
             msgkit_status_name(MSGKIT_STATUS_MESSAGES, status), status,
             msgkit_status_sentence(MSGKIT_STATUS_MESSAGES, status));
  return EXIT_FAILURE;
}

}  // namespace

extern "C" int msgkit_run_daemon(const MSGKIT_DAEMON_ST *daemon) {
  if (daemon == nullptr || daemon->pcName == nullptr) return EXIT_FAILURE;
  g_daemon = daemon;
  mlog_print(daemon->pcName, MLOG_LEVEL_INFO, "Starts.");

  uint32_t status = start();
  if (status != ORP_OK) return fail("Cannot start", status);
  status = run_loop();
  finish();
  if (status != ORP_OK) return fail("The loop ended", status);
  mlog_print(daemon->pcName, MLOG_LEVEL_INFO, "Has ended.");
  return EXIT_SUCCESS;
}
