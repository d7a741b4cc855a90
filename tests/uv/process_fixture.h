// Helpers for the tests of child processes: spawning, with everything recorded.
#pragma once

#include <sys/wait.h>

#include <map>

#include "msgapi/process.h"
#include "uv/loop_fixture.h"

namespace msgapi {

// An argument vector and spawn options.
class Command {
 public:
  explicit Command(std::vector<std::string> words) : words_(std::move(words)) {
    for (std::string &word : words_) args_.push_back(word.data());
    args_.push_back(nullptr);
    options.file = args_[0];
    options.args = args_.data();
  }
  Command(const Command &) = delete;
  Command &operator=(const Command &) = delete;
  static Command shell(const std::string &script) { return Command({"/bin/sh", "-c", script}); }

  OrpUvSpawnOptions options = {};

 private:
  std::vector<std::string> words_;
  std::vector<char *> args_;
};

class ProcessTest : public LoopTest {
 protected:
  ~ProcessTest() override {
    EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG)) << "a zombie or a running child is left";
  }

  // Spawns on the default loop, recording output and exit under options.data.
  OrpUvProcess *spawn(Command &command, uint32_t flags = 0) {
    OrpUvSpawnOptions &options = command.options;
    options.flags = flags;
    options.exitProc = record_exit;
    if (options.outputProc == nullptr) options.outputProc = record_output;
    OrpUvProcess *process = nullptr;
    EXPECT_EQ(ORP_OK, OrpUvProcessSpawn(nullptr, &process, &options));
    if (process != nullptr) ++left;
    return process;
  }

  // Runs the default loop until every child's exit has been reported.
  void run_to_end() { EXPECT_EQ(ORP_OK, ORP_UV_LoopRun(nullptr, 0)); }

  // Serves what is ready on the default loop, then lets it come to a safe point.
  void run_default_once() {
    EXPECT_EQ(ORP_ERR_TIMEOUT, ORP_UV_LoopRun(nullptr, 1));
    turn(OrpUvLoopGetDefault());
  }

  // The output of a shell script that is spawned with these options.
  std::string printed(Command &command, uint32_t flags = 0) {
    output.clear();
    spawn(command, flags | ORP_UV_SPAWN_STDOUT | ORP_UV_SPAWN_STDERR);
    run_to_end();
    return output[command.options.data];
  }

  static void record_output(OrpUvProcess *process, OrpUvIo *io, uint32_t /*which*/) {
    char buffer[8192];
    const ssize_t count = ::read(io->fd, buffer, sizeof buffer);
    if (count > 0) {
      output[process->head.data].append(buffer, static_cast<size_t>(count));
    } else {
      OrpUvProcessDeleteRedirectIo(process, io);
    }
  }

  static std::string end_of(ORP_WORD data, uint32_t code, uint32_t signal) {
    return std::to_string(data) + ": exit " + std::to_string(code) + " signal " +
           std::to_string(signal);
  }
  static void record_exit(OrpUvProcess *process, int32_t pid, uint32_t code, uint32_t signal) {
    EXPECT_GT(pid, 0);
    EXPECT_EQ(-1, process->pid);
    recorded(end_of(process->head.data, code, signal));
    if (on_exit) on_exit(process);
    if (--left == 0) OrpUvLoopStop(OrpUvLoopGetDefault());
  }

  static inline std::map<ORP_WORD, std::string> output;
  static inline uint32_t left;
  static inline std::function<void(OrpUvProcess *)> on_exit;
};

}  // namespace msgapi
