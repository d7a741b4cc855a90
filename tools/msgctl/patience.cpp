#include "msgctl/patience.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

#include "msgctl/output.h"

namespace msgctl {
namespace {

// What the signal handler writes. Made beforehand, because the handler may not allocate
// (signal-safety(7)).
std::string &last_line() {
  static std::string line;
  return line;
}

int error_fd = STDERR_FILENO;

void end_process(int /*signal*/) {
  const std::string &line = last_line();
  const ssize_t ignored = ::write(error_fd, line.data(), line.size());
  static_cast<void>(ignored);
  ::_exit(static_cast<int>(ExitStatus::kTimeout));
}

void arm(uint32_t ms) {
  itimerval timer{};
  timer.it_value.tv_sec = ms / 1000;
  timer.it_value.tv_usec = static_cast<suseconds_t>(ms % 1000) * 1000;
  ::setitimer(ITIMER_REAL, &timer, nullptr);
}

int copy_of(int fd) {
  return ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
}

}  // namespace

PatienceAlarm::PatienceAlarm(const Context &context, uint32_t ms, const std::string &text)
    : error_(copy_of(STDERR_FILENO)) {
  error_fd = error_.get();
  last_line() = error_line(context.json, ExitStatus::kTimeout, text);
  std::signal(SIGALRM, end_process);
  arm(std::max(ms, 1u));
}

PatienceAlarm::~PatienceAlarm() {
  arm(0);
  std::signal(SIGALRM, SIG_DFL);
}

QuietOutput::QuietOutput() : output_(copy_of(STDOUT_FILENO)), error_(copy_of(STDERR_FILENO)) {
  const servers::UniqueFd null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  if (output_ && null) ::dup2(null.get(), STDOUT_FILENO);
  if (error_ && null) ::dup2(null.get(), STDERR_FILENO);
}

QuietOutput::~QuietOutput() {
  std::fflush(stdout);
  if (output_) ::dup2(output_.get(), STDOUT_FILENO);
  if (error_) ::dup2(error_.get(), STDERR_FILENO);
}

}  // namespace msgctl
