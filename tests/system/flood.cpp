// flood RATE SECONDS: one application sends another RATE messages of 40 bytes a second for SECONDS.
// Prints how many came, and at what rate. The message server must be running.

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "msgapi.h"

namespace {

using std::chrono::steady_clock;

constexpr char kSink[] = "floodsink";
constexpr uint32_t kDrop = 0x1234;
constexpr uint32_t kReport = 0x1235;
// How often the messages that are due are sent together: sleeping is not exact enough for single
// messages.
constexpr std::chrono::milliseconds kTurn{1};
constexpr unsigned long kMostInATurn = 10'000;

uint32_t g_received = 0;

[[noreturn]] void fail(const char *what) {
  std::fprintf(stderr, "flood: %s\n", what);
  std::_Exit(1);
}

[[noreturn]] void sink(pid_t parent) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) std::_Exit(1);
  if (ORP_MSG_Init(kSink) != ORP_OK) fail("the receiver has no message server");
  ORP_MSG_RegMsgProc(
      kDrop, [](ORP_MSG_HEADER_ST * /*message*/) { ++g_received; }, 0, nullptr);
  ORP_MSG_RegMsgProc(
      kReport,
      [](ORP_MSG_HEADER_ST *request) {
        std::memcpy(request->aucRecvApp, request->aucSendApp, sizeof request->aucRecvApp);
        request->ulMsgData = g_received;
        ORP_MSG_Send(request);
      },
      0, nullptr);
  ORP_MSG_RegisterMsgProc(ORP_MSG_DefaultMsgProc);
  ORP_MSG_GetAndDispatch();
  std::_Exit(0);
}

}  // namespace

int main(int argc, char **argv) {
  const double rate = argc == 3 ? std::atof(argv[1]) : 0;
  const double seconds = argc == 3 ? std::atof(argv[2]) : 0;
  if (rate <= 0 || seconds <= 0) {
    std::fprintf(stderr, "usage: flood RATE SECONDS\n");
    return 2;
  }
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child == 0) sink(parent);
  if (ORP_MSG_InitWithoutHandle("flood") != ORP_OK) fail("no message server");
  uint32_t received = 0;
  while (ORP_MSG_SendAndRecvMsgData(kSink, kReport, 0, 1000, &received) != ORP_OK) {
    std::this_thread::sleep_for(kTurn);
  }

  const auto begin = steady_clock::now();
  const auto since = [begin] {
    return std::chrono::duration<double>(steady_clock::now() - begin).count();
  };
  unsigned long sent = 0;
  while (since() < seconds) {
    // A machine that cannot send that many still ends in time.
    const auto due = std::min(static_cast<unsigned long>(since() * rate), sent + kMostInATurn);
    for (; sent < due; ++sent) {
      if (ORP_MSG_SendSimpleMsg(kSink, kDrop, 0) != ORP_OK) fail("cannot send");
    }
    std::this_thread::sleep_for(kTurn);
  }
  // Everything that was sent before arrives before it.
  if (ORP_MSG_SendAndRecvMsgData(kSink, kReport, 0, 60'000, &received) != ORP_OK) {
    fail("the receiver does not answer");
  }
  std::printf("%lu messages in %.1f s, %.0f a second; %u came\n", sent, since(),
              static_cast<double>(sent) / since(), received);
  ORP_MSG_Destroy();
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  return 0;
}
