#include "msgctl/child.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "common/exit_status.h"
#include "common/unique_fd.h"
#include "msgctl/bus.h"

extern char **environ;

namespace msgctl {
namespace {

using servers::UniqueFd;

struct Pipe {
  UniqueFd read;
  UniqueFd write;

  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
      throw Failure(ExitStatus::kAnswerError, fmt::format("no pipe: {}", std::strerror(errno)));
    }
    read.reset(ends[0]);
    write.reset(ends[1]);
  }
};

std::vector<std::string> environment(
    const std::vector<std::pair<std::string, std::string>> &variables) {
  std::vector<std::string> all;
  for (char **entry = environ; *entry != nullptr; ++entry) all.emplace_back(*entry);
  for (const auto &[name, value] : variables) {
    const std::string head = name + "=";
    std::erase_if(all, [&](const std::string &entry) { return entry.starts_with(head); });
    all.push_back(head + value);
  }
  return all;
}

std::vector<char *> pointers(const std::vector<std::string> &texts) {
  std::vector<char *> all;
  for (const std::string &text : texts) all.push_back(const_cast<char *>(text.c_str()));
  all.push_back(nullptr);
  return all;
}

pid_t start(const std::vector<std::string> &arguments, const std::vector<std::string> &variables,
            int input, int output) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawnattr_init(&attributes);
  ::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  // We ignore SIGPIPE; the program must not inherit that. With a group of its own, the program and
  // its children can be ended together.
  sigset_t defaults;
  ::sigemptyset(&defaults);
  ::sigaddset(&defaults, SIGPIPE);
  ::posix_spawnattr_setsigdefault(&attributes, &defaults);
  ::posix_spawnattr_setpgroup(&attributes, 0);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  pid_t pid = -1;
  const int error = ::posix_spawnp(&pid, arguments[0].c_str(), &actions, &attributes,
                                   pointers(arguments).data(), pointers(variables).data());
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw Failure(ExitStatus::kAnswerError,
                  fmt::format("{} cannot be run: {}", arguments[0], std::strerror(error)));
  }
  return pid;
}

}  // namespace

ChildResult run_child(const std::vector<std::string> &arguments,
                      const std::vector<std::pair<std::string, std::string>> &variables,
                      std::string_view input, uint32_t timeout_ms, size_t most_output) {
  Pipe in;
  Pipe out;
  const std::vector<std::string> all = environment(variables);
  const pid_t pid = start(arguments, all, in.read.get(), out.write.get());
  in.read.reset();
  out.write.reset();
  ::fcntl(in.write.get(), F_SETFL, O_NONBLOCK);
  ::fcntl(out.read.get(), F_SETFL, O_NONBLOCK);

  ChildResult result;
  const Deadline deadline = in_ms(timeout_ms);
  if (input.empty()) in.write.reset();
  while (out.read) {
    pollfd entries[] = {{.fd = out.read.get(), .events = POLLIN, .revents = 0},
                        {.fd = in.write.get(), .events = POLLOUT, .revents = 0}};
    const int ready = ::poll(entries, 2, static_cast<int>(ms_until(deadline)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0 || result.output.size() > most_output) {
      result.timed_out = true;
      ::kill(-pid, SIGKILL);
      break;
    }
    if (entries[1].revents != 0) {
      const ssize_t written = ::write(in.write.get(), input.data(), input.size());
      // The program need not read its input.
      if (written < 0 && errno != EAGAIN) in.write.reset();
      if (written > 0) input.remove_prefix(static_cast<size_t>(written));
      if (input.empty()) in.write.reset();
    }
    if (entries[0].revents != 0) {
      char buffer[65536];
      const ssize_t got = ::read(out.read.get(), buffer, sizeof buffer);
      if (got > 0) result.output.append(buffer, static_cast<size_t>(got));
      if (got == 0 || (got < 0 && errno != EAGAIN)) out.read.reset();
    }
  }
  int status = 0;
  // The program may close its output and go on; it still gets no more than the time-out.
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    if (ms_until(deadline) == 0) {
      result.timed_out = true;
      ::kill(-pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      break;
    }
    ::usleep(1000);
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace msgctl
