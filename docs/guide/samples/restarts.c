/* steady: counts what happens to its connection; asks for nothing else. */
#include <msgapi.h>
#include <msgapi/kit.h>
#include <stdio.h>

static void changed(uint32_t server, uint32_t connected) {
  printf("%s server: %s\n", server == MSGKIT_MESSAGE_SERVER ? "message" : "notify",
         connected ? "here" : "gone");
  fflush(stdout);
}

int main(void) {
  const MSGKIT_DAEMON_ST daemon = {"steady", NULL, changed, NULL, NULL};
  return msgkit_run_daemon(&daemon);
}
