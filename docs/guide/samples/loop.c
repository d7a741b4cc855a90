/* loop: a timer, a descriptor, a signal and a child on one loop; no server is needed. */
#include <msgapi.h>
#include <msgapi/kit.h>
#include <msgapi/process.h>
#include <msgapi/sockbase.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

static int g_pipe[2];

static void child_ended(OrpUvProcess *process, int32_t pid, uint32_t exitCode, uint32_t signal) {
  (void)process, (void)pid;
  printf("the child ended with %u, signal %u\n", exitCode, signal);
  OrpUvLoopStop(OrpUvLoopGetDefault());
}

static void on_signal(int32_t signal) {
  char program[] = "sh", option[] = "-c", command[] = "exit 3";
  char *arguments[] = {program, option, command, NULL};
  OrpUvSpawnOptions options = {0};
  printf("signal %d\n", signal);
  options.file = program;
  options.args = arguments;
  options.exitProc = child_ended;
  if (OrpUvProcessSpawn(NULL, NULL, &options) != ORP_OK) OrpUvLoopStop(OrpUvLoopGetDefault());
}

static void readable(ORP_UTIL_SOCKBASE_ST *base, uint32_t event) {
  char byte;
  (void)event;
  if (read(base->io.fd, &byte, 1) == 1) printf("read %c\n", byte);
  ORP_UTIL_SocketBaseDelete(base); /* closes the descriptor */
  raise(SIGUSR1);
}

static void tick(ORP_WORD data) {
  printf("tick\n");
  if (write(g_pipe[1], (const char *)data, 1) != 1) OrpUvLoopStop(OrpUvLoopGetDefault());
}

int main(void) {
  if (pipe(g_pipe) != 0) return 1;
  msgkit_on_signal(SIGUSR1, on_signal);
  ORP_UTIL_SockBaseRegNew(g_pipe[0], 0, readable, ORP_UTIL_SOCKBASE_READ, 0);
  ORP_UTIL_TimerAdd(10, 1, tick, (ORP_WORD) "x");
  return (int)OrpUvLoopRun(NULL, 10000);
}
