/*
 * Linked into every program and library of a coverage build. A process writes its counters when it
 * ends by exit(); here also when it ends by _exit() or becomes another program.
 */
#include <unistd.h>

void __gcov_dump(void);
void __gcov_reset(void);

void __real__exit(int status) __attribute__((noreturn));
int __real_execv(const char *path, char *const words[]);
int __real_execve(const char *path, char *const words[], char *const environment[]);
int __real_execvp(const char *file, char *const words[]);

void __attribute__((noreturn)) __wrap__exit(int status) {
  __gcov_dump();
  __real__exit(status);
}

/* Where the program does not start, what follows counts anew. */

int __wrap_execv(const char *path, char *const words[]) {
  __gcov_dump();
  const int result = __real_execv(path, words);
  __gcov_reset();
  return result;
}

int __wrap_execve(const char *path, char *const words[], char *const environment[]) {
  __gcov_dump();
  const int result = __real_execve(path, words, environment);
  __gcov_reset();
  return result;
}

int __wrap_execvp(const char *file, char *const words[]) {
  __gcov_dump();
  const int result = __real_execvp(file, words);
  __gcov_reset();
  return result;
}
