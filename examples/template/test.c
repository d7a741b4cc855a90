/* test DAEMON: starts the daemon, asks it, and ends it as the system would. */
#include <msgapi.h>
#include <msgapi/kit.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "@NAME@.h"

static int fails(const char *what, uint32_t status) {
  printf("%s: %s: %s\n", what, msgkit_status_name(MSGKIT_STATUS_MESSAGES, status),
         msgkit_status_sentence(MSGKIT_STATUS_MESSAGES, status));
  return 1;
}

static int ask(void) {
  uint32_t status, answer = 0, tries;
  status = ORP_MSG_InitWithoutHandle("test");
  if (status != ORP_OK) return fails("connecting", status);
  for (tries = 0; tries < 250 && ORP_MSG_GetNumOfProcesses("@NAME@") == 0; ++tries) usleep(20000);
  status = ORP_MSG_SendAndRecvMsgData("@NAME@", TYPE_DOUBLE, 21, 5000, &answer);
  if (status != ORP_OK) return fails("asking", status);
  if (answer != 42) return printf("the answer is %u\n", answer), 1;
  return 0;
}

int main(int argc, char **argv) {
  int failed, status = 0;
  pid_t daemon;
  if (argc != 2) return 2;
  daemon = fork();
  if (daemon == 0) {
    execl(argv[1], argv[1], (char *)NULL);
    _exit(127);
  }
  failed = ask();
  kill(daemon, SIGTERM);
  waitpid(daemon, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return printf("the daemon ended badly\n"), 1;
  return failed;
}
