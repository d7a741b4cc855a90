/*
 * Linked into every program and library of a coverage build. A process writes its counters when it
 * ends by exit(); here also when it ends by _exit() or becomes another program.
 */
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

void __gcov_dump(void);
void __gcov_reset(void);
extern FILE *__gcov_error_file;

void __real__exit(int status) __attribute__((noreturn));
int __real_execv(const char *path, char *const words[]);
int __real_execve(const char *path, char *const words[], char *const environment[]);
int __real_execvp(const char *file, char *const words[]);

/* The torture loop's shim fails calls of the program. One that fails here leaves a file of counters
   that no later process can add to. */
typedef void Spare(int spares);
static Spare *spare;

/* Who may write the counters. */
static uid_t owner;

__attribute__((constructor)) static void start(void) {
  const char *file = getenv("GCOV_ERROR_FILE");
  struct stat status;
  owner = file != NULL && stat(file, &status) == 0 ? status.st_uid : geteuid();
  spare = (Spare *)dlsym(RTLD_DEFAULT, "torture_spare");
}

/* False when there is nothing that this process may write. Tests read standard error, so nothing
   is said there: not that files cannot be opened, and nothing in a child whose own environment
   lacks GCOV_ERROR_FILE. */
static int begin_writing(void) {
  if (geteuid() != owner) return 0;
  if (spare != NULL) spare(1);
  if (__gcov_error_file == NULL && getenv("GCOV_ERROR_FILE") == NULL) {
    __gcov_error_file = fopencookie(NULL, "w", (cookie_io_functions_t){NULL, NULL, NULL, NULL});
  }
  return 1;
}

/* libgcov writes in destructors of priority 100, which come last; nobody can keep it from that. */
__attribute__((destructor(101))) static void end(void) {
  if (begin_writing()) return;
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (nowhere >= 0) dup2(nowhere, STDERR_FILENO);
}

static void write_counters(void) {
  if (begin_writing()) __gcov_dump();
}

/* Where the program does not start, what follows counts anew. */
static int go_on(int result) {
  if (geteuid() == owner) __gcov_reset();
  if (spare != NULL) spare(0);
  return result;
}

void __attribute__((noreturn)) __wrap__exit(int status) {
  write_counters();
  __real__exit(status);
}

int __wrap_execv(const char *path, char *const words[]) {
  write_counters();
  return go_on(__real_execv(path, words));
}

int __wrap_execve(const char *path, char *const words[], char *const environment[]) {
  write_counters();
  return go_on(__real_execve(path, words, environment));
}

int __wrap_execvp(const char *file, char *const words[]) {
  write_counters();
  return go_on(__real_execvp(file, words));
}
