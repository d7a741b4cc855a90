/*
 * storm_child OUT ERR EXIT SIGNAL: writes OUT bytes to standard output and ERR bytes to standard
 * error. Then ends by SIGNAL or, when that is 0, exits with EXIT. In C, so that it starts fast.
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
  if (argc != 5) return 98;
  write_bytes(1, 'o', strtoul(argv[1], NULL, 10));
  write_bytes(2, 'e', strtoul(argv[2], NULL, 10));
  if (atoi(argv[4]) != 0) raise(atoi(argv[4]));
  _exit(atoi(argv[3]));
}
