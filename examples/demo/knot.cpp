// One of the demo's two daemons that ask each other: `demo_knot left` and `demo_knot right` ask the
// other from within their handlers, as often on as a request's data says.
//
// Who waits for an answer reads nothing else meanwhile. So one question on is fine, and one that
// comes back to where it began is a deadlock, until the time-out.

#include <cstdio>
#include <cstring>

#include "messages.h"
#include "msgapi.h"
#include "msgapi/kit.h"

namespace {

constexpr uint32_t kPatience_ms = 10000;

struct Knot {
  const char *name;
  uint32_t type;  // of the requests that it answers
};
// Different types: what has the type of a request is taken for its answer.
constexpr Knot kLeft = {"left", kAskLeft};
constexpr Knot kRight = {"right", kAskRight};
const Knot *g_own;
const Knot *g_other;

ORP_MSG_HEADER_ST *pass_on(ORP_MSG_HEADER_ST *request) {
  uint32_t status = ORP_OK;
  if (request->ulMsgData > 0) {
    uint32_t answer = 0;
    status = ORP_MSG_SendAndRecvMsgData(g_other->name, g_other->type, request->ulMsgData - 1,
                                        kPatience_ms, &answer);
    if (status == ORP_OK) status = answer;
  }
  return ORP_MSG_MsgRespBuilder(request, status, nullptr, 0);
}

uint32_t start() {
  return ORP_MSG_RegisterSyncMsgProc(g_own->type, pass_on, 0, nullptr);
}

}  // namespace

int main(int argc, char **argv) {
  const bool left = argc == 2 && std::strcmp(argv[1], kLeft.name) == 0;
  if (!left && (argc != 2 || std::strcmp(argv[1], kRight.name) != 0)) {
    std::fprintf(stderr, "usage: demo_knot left|right\n");
    return 2;
  }
  g_own = left ? &kLeft : &kRight;
  g_other = left ? &kRight : &kLeft;
  const MSGKIT_DAEMON_ST daemon = {g_own->name, start, nullptr, nullptr, nullptr};
  return msgkit_run_daemon(&daemon);
}
