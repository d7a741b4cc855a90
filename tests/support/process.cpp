#include "support/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "support/soak.h"

namespace test {

Process::Process(const std::string &name, const std::vector<std::string> &arguments) {
  const char *directory = std::getenv("MSGAPI_BIN");
  const std::string path = std::filesystem::path(directory == nullptr ? "." : directory) / name;
  std::vector<char *> vector{const_cast<char *>(path.c_str())};
  for (const std::string &argument : arguments) {
    vector.push_back(const_cast<char *>(argument.c_str()));
  }
  vector.push_back(nullptr);

  int ends[2];
  EXPECT_EQ(0, ::pipe2(ends, O_CLOEXEC));
  output_fd_.reset(ends[0]);
  const msgapi::os::UniqueFd output(ends[1]);
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(output.get(), STDOUT_FILENO);
    ::dup2(output.get(), STDERR_FILENO);
    ::execv(path.c_str(), vector.data());
    ::_exit(127);
  }
}

Process::~Process() {
#ifdef MSGAPI_COVERAGE
  if (pid_ > 0) stop(SIGTERM);  // only what ends in order writes what it has counted
#endif
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
}

bool Process::wait_for(const std::string &text) {
  size_t found;
  while ((found = output_.find(text, seen_)) == std::string::npos) {
    if (!read_more()) return false;
  }
  seen_ = found + text.size();
  return true;
}

int Process::wait() {
  while (read_more()) {
  }
  int status = 0;
  if (::waitpid(pid_, &status, ended_ ? 0 : WNOHANG) != pid_) return -1;
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Process::stop(int signal) {
  ::kill(pid_, signal);
  return wait();
}

bool Process::read_more() {
  pollfd entry{.fd = output_fd_.get(), .events = POLLIN, .revents = 0};
  if (::poll(&entry, 1, kPatience_ms) != 1) return false;
  char bytes[4096];
  const ssize_t got = ::read(output_fd_.get(), bytes, sizeof bytes);
  ended_ = got <= 0;
  if (ended_) return false;
  output_.append(bytes, static_cast<size_t>(got));
  return true;
}

}  // namespace test
