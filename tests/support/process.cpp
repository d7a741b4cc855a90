#include "support/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

namespace test {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kPatience(10);

int left_ms(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

Process::Process(const std::string &name, const std::vector<std::string> &arguments) {
  const char *directory = std::getenv("MSGAPI_BIN");
  const std::string path = (directory == nullptr ? "." : directory) + ("/" + name);
  std::vector<char *> vector{const_cast<char *>(path.c_str())};
  for (const std::string &argument : arguments) {
    vector.push_back(const_cast<char *>(argument.c_str()));
  }
  vector.push_back(nullptr);

  int fds[2];
  EXPECT_EQ(0, ::pipe2(fds, O_CLOEXEC));
  output_fd_ = fds[0];
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
  EXPECT_EQ(0, ::posix_spawn(&pid_, path.c_str(), &actions, nullptr, vector.data(), environ))
      << path;
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
}

Process::~Process() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  ::close(output_fd_);
}

bool Process::wait_for(const std::string &text) {
  const auto deadline = Clock::now() + kPatience;
  for (;;) {
    const size_t found = output_.find(text, seen_);
    if (found != std::string::npos) {
      seen_ = found + text.size();
      return true;
    }
    if (!read_more(left_ms(deadline))) return false;
  }
}

int Process::wait() {
  const auto deadline = Clock::now() + kPatience;
  while (read_more(left_ms(deadline))) {
  }

  int status = 0;
  pid_t ended = 0;
  // The end of the output is all but the end of the program.
  while ((ended = ::waitpid(pid_, &status, WNOHANG)) == 0 && left_ms(deadline) > 0) {
    ::poll(nullptr, 0, 1);
  }
  if (ended != pid_) return -1;
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Process::stop(int signal) {
  ::kill(pid_, signal);
  return wait();
}

bool Process::read_more(int timeout_ms) {
  pollfd entry{.fd = output_fd_, .events = POLLIN, .revents = 0};
  if (::poll(&entry, 1, timeout_ms) != 1) return false;
  char bytes[4096];
  const ssize_t got = ::read(output_fd_, bytes, sizeof bytes);
  if (got <= 0) return false;
  output_.append(bytes, static_cast<size_t>(got));
  return true;
}

}  // namespace test
