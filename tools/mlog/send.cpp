// Log lines for shell scripts and for programs that know nothing of the log.

#include <fcntl.h>
#include <fmt/core.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string_view>

#include "commands.h"
#include "common/command_line.h"
#include "common/unique_fd.h"
#include "filter.h"
#include "mlogserver/line.h"
#include "msgapi/log.h"

namespace mlog {
namespace {

constexpr const char *kDefaultModule = "shell";
// A line without an end is cut after this many bytes.
constexpr size_t kLongestLine = 65536;

uint32_t level_of(const std::string &name) {
  const std::optional<LevelRange> levels = parse_levels(name);
  if (!levels || name.find("..") != std::string::npos) {
    throw servers::UsageError(name + ": not a level (NONE, FATL, ERRO, WARN, INFO)");
  }
  return levels->to;
}

int64_t uptime_ms() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Sends lines as a module. Lines that the server does not take go to standard error.
class Sender {
 public:
  explicit Sender(std::string module) : module_(std::move(module)) {
    if (!mlogserver::is_module_name(module_)) {
      throw servers::UsageError(module_ + ": not a module's name");
    }
    name_ = fmt::format("mlog_{}", ::getpid());
    MlogSocketOpen(name_.c_str(), &fd_);
  }
  Sender(const Sender &) = delete;
  Sender &operator=(const Sender &) = delete;
  ~Sender() {
    if (fd_ >= 0) MlogSocketClose(fd_, name_.c_str());
  }

  // Whether the server took every line so far.
  bool all_taken() const { return !told_; }

  // A text that is too long for a line becomes several lines, cut between characters.
  void send(uint32_t level, std::string_view text) {
    do {
      std::string line =
          fmt::format("[{:011}][{}][{}]:", uptime_ms(), module_, MlogGetLogLevelString(level));
      // Two bytes are for the line feed and the NUL.
      const size_t room = MLOG_MAX_PAYLOAD - line.size() - 2;
      size_t size = std::min(room, text.size());
      const auto continues = [&](size_t at) {
        return at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80;
      };
      for (int back = 0; back < 3 && size > 3 && size < text.size() && continues(size); ++back) {
        --size;
      }
      line.append(text.substr(0, size));
      text.remove_prefix(size);
      deliver(line);
    } while (!text.empty());
  }

 private:
  void deliver(const std::string &line) {
    MlogMsg message{.type = MLOG_TYPE_LOG, .length = 0, .payload = {}};
    std::memcpy(message.payload, line.data(), line.size());
    message.payload[line.size()] = '\n';
    message.length = static_cast<uint32_t>(line.size()) + 2;
    if (fd_ >= 0 && MlogSendMsg(fd_, &message, MLOG_SERVER_NAME) == 0) return;
    if (!told_) {
      fmt::print(stderr, "mlog: the log server does not take lines; is mlogserver running?\n");
    }
    told_ = true;
    std::string clean;
    mlogserver::add_clean_text(line, &clean);
    fmt::print(stderr, "mlog: {}\n", clean);
  }

  std::string module_;
  std::string name_;
  int32_t fd_ = -1;
  bool told_ = false;
};

// One output of a program, by lines.
class Pipe {
 public:
  Pipe(servers::UniqueFd fd, uint32_t level) : fd_(std::move(fd)), level_(level) {}

  int fd() const { return fd_.get(); }

  // Sends the lines that have come; false at the end of the output.
  bool read(Sender *sender) {
    std::array<char, 4096> bytes;
    const ssize_t got = ::read(fd_.get(), bytes.data(), bytes.size());
    if (got < 0) return errno == EINTR || errno == EAGAIN;
    rest_.append(bytes.data(), static_cast<size_t>(got));
    size_t begin = 0;
    for (size_t end; (end = rest_.find('\n', begin)) != std::string::npos; begin = end + 1) {
      sender->send(level_, std::string_view(rest_).substr(begin, end - begin));
    }
    rest_.erase(0, begin);
    if (got == 0 || rest_.size() > kLongestLine) {
      if (!rest_.empty()) sender->send(level_, rest_);
      rest_.clear();
    }
    return got > 0;
  }

 private:
  servers::UniqueFd fd_;
  uint32_t level_;
  std::string rest_;
};

// The ends of a pipe: the one to read from, the one to write to.
std::array<servers::UniqueFd, 2> open_pipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error(std::strerror(errno));
  return {servers::UniqueFd(ends[0]), servers::UniqueFd(ends[1])};
}

void forward(std::vector<Pipe> pipes, Sender *sender) {
  while (!pipes.empty()) {
    std::vector<pollfd> fds;
    for (const Pipe &pipe : pipes) fds.push_back({pipe.fd(), POLLIN, 0});
    if (::poll(fds.data(), fds.size(), -1) < 0) continue;
    for (size_t i = fds.size(); i-- > 0;) {
      if (fds[i].revents != 0 && !pipes[i].read(sender)) {
        pipes.erase(pipes.begin() + static_cast<ptrdiff_t>(i));
      }
    }
  }
}

}  // namespace

void print(const Options &options) {
  const uint32_t level = level_of(options.level.empty() ? "INFO" : options.level);
  Sender sender(options.module.empty() ? kDefaultModule : options.module);
  if (options.words.empty()) {
    for (std::string line; std::getline(std::cin, line);) sender.send(level, line);
  } else {
    sender.send(level, servers::joined(options.words));
  }
  if (!sender.all_taken()) set_exit_status(kNoServer);
}

void run(const Options &options) {
  const uint32_t level = level_of(options.level.empty() ? "INFO" : options.level);
  const uint32_t error_level = level_of(options.error_level);
  Sender sender(options.module.empty()
                    ? std::filesystem::path(options.words.front()).filename().string()
                    : options.module);

  std::vector<char *> arguments;
  for (const std::string &word : options.words) {
    arguments.push_back(const_cast<char *>(word.c_str()));
  }
  arguments.push_back(nullptr);
  std::array output = open_pipe();
  std::array errors = open_pipe();
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (pid == 0) {
    ::dup2(output[1].get(), STDOUT_FILENO);
    ::dup2(errors[1].get(), STDERR_FILENO);
    ::execvp(arguments[0], arguments.data());
    // Standard error is the log by now; the parent learns of the failure by the status.
    ::dprintf(STDERR_FILENO, "%s: %s\n", arguments[0], std::strerror(errno));
    ::_exit(errno == ENOENT ? 127 : 126);
  }
  output[1].reset();
  errors[1].reset();
  // The terminal sends its signals to the program, too. This process stays to read its last lines.
  for (const int signal : {SIGINT, SIGQUIT}) ::signal(signal, SIG_IGN);
  std::vector<Pipe> pipes;
  pipes.emplace_back(std::move(output[0]), level);
  pipes.emplace_back(std::move(errors[0]), error_level);
  forward(std::move(pipes), &sender);

  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  set_exit_status(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

}  // namespace mlog
