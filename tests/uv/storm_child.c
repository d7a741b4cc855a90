/*
 * storm_child OUT ERR END: writes so many bytes to standard output and error, then exits with END
 * or, when END is negative, ends by that signal. In C so that it starts fast.
 */
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static void write_bytes(int fd, int byte, size_t size) {
  char buffer[4096];
  memset(buffer, byte, sizeof buffer);
  while (size > 0) {
    const ssize_t count = write(fd, buffer, size < sizeof buffer ? size : sizeof buffer);
    if (count <= 0) _exit(99);
    size -= (size_t)count;
  }
}

int main(int argc, char **argv) {
  if (argc != 4) return 98;
  write_bytes(1, 'o', strtoul(argv[1], NULL, 10));
  write_bytes(2, 'e', strtoul(argv[2], NULL, 10));
  const int end = atoi(argv[3]);
  if (end < 0) raise(-end);
  _exit(end);
}
