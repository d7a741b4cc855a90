#include "support/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "support/soak.h"

namespace test {

Process::Process(const std::string &name, const std::vector<std::string> &arguments) {
  const std::string path = name.starts_with('/') ? name : path_of(name);
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

Output run_program(const std::string &name, const std::vector<std::string> &arguments) {
  Process process(name, arguments);
  const int status = process.wait();
  return {status, process.output()};
}

Output shell(const std::string &command) {
  const std::string script = "/var/shell.sh";
  std::ofstream(script) << "PATH=" << path_of("") << ":$PATH\n" << command << "\n";
  FILE *pipe = ::popen(("bash " + script).c_str(), "r");
  std::string text;
  for (int c; (c = std::fgetc(pipe)) != EOF;) text += static_cast<char>(c);
  const int status = ::pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text};
}

std::string path_of(const std::string &name) {
  const char *directory = std::getenv("MSGAPI_BIN");
  return (directory == nullptr ? "." : directory) + ("/" + name);
}

bool eventually(const std::function<bool()> &holds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatience_ms);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace test
