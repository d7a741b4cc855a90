#include "pager.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace mlog {

Pager::Pager() {
  const char *wanted = std::getenv("PAGER");
  std::istringstream command(wanted == nullptr ? "less" : wanted);
  std::vector<std::string> words;
  for (std::string word; command >> word;) words.push_back(word);
  if (words.empty() || words[0] == "cat") return;
  std::vector<char *> arguments;
  for (std::string &word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);

  int input[2];
  int failure[2];  // execvp() closes the child's end; a failure is written to it
  if (::pipe2(input, O_CLOEXEC) != 0) return;
  const servers::UniqueFd read_end(input[0]);
  const servers::UniqueFd write_end(input[1]);
  if (::pipe2(failure, O_CLOEXEC) != 0) return;
  const servers::UniqueFd failure_read(failure[0]);
  servers::UniqueFd failure_write(failure[1]);

  pid_ = ::fork();
  if (pid_ < 0) return;
  if (pid_ == 0) {
    ::dup2(read_end.get(), STDIN_FILENO);
    // F: end at once if the text fits the screen. R: let colours through. X: leave the text there.
    ::setenv("LESS", "FRSXMK", 0);
    ::execvp(arguments[0], arguments.data());
    const char reason = 1;
    [[maybe_unused]] const ssize_t told = ::write(failure_write.get(), &reason, 1);
    ::_exit(127);
  }
  failure_write.reset();
  char reason;
  ssize_t got;
  while ((got = ::read(failure_read.get(), &reason, 1)) < 0 && errno == EINTR) {
  }
  if (got != 0) {
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
    return;
  }
  ::dup2(write_end.get(), STDOUT_FILENO);
  // Interrupts are for the pager. If one ended this process, the shell and the pager would both
  // read the terminal.
  ::signal(SIGINT, SIG_IGN);
}

Pager::~Pager() {
  if (pid_ < 0) return;
  std::fflush(stdout);
  ::close(STDOUT_FILENO);
  while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  ::signal(SIGINT, SIG_DFL);
}

}  // namespace mlog
