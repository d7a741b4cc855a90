// Reading logs: 64 modules of 1 MiB each as one log, by the library and by the program.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "merge.h"
#include "msgapi/ringlog.h"
#include "ring_reader.h"

namespace {

constexpr int kModules = 64;
constexpr uint32_t kFileSize = 1024 * 1024;

std::string path_of(int module) {
  return "/var/mlogfile/m" + std::to_string(module) + ".log";
}

// Writes rings up to their second turn, with lines that alternate between them. Returns their size
// in bytes.
int64_t write_rings() {
  static int64_t size = 0;
  if (size > 0) return size;
  ::mkdir("/var/mlogfile", 0755);
  for (int module = 0; module < kModules; ++module) {
    MlogTarget target{kFileSize, MlogFileConstructor(path_of(module).c_str(), kFileSize)};
    // Many lines in one buffer, so that this takes less time than the measurement.
    int64_t uptime_ms = module;
    while (target.file->overturn == 0 || target.file->offset < kFileSize / 2) {
      std::string buffer;
      for (int i = 0; i < 20; ++i) {
        char line[128];
        std::snprintf(line, sizeof line,
                      "[%011lld][m%d][%s]:link eth%d is up, speed 1000, duplex full, mtu\n",
                      static_cast<long long>(uptime_ms += 50 + i % 7), module,
                      i % 5 == 0 ? "WARN" : "INFO", i);
        buffer += line;
      }
      MlogFileWrite(&target, buffer.data(), static_cast<uint32_t>(buffer.size()));
    }
    MlogFileDestructor(target.file);
    struct stat status {};
    ::stat(path_of(module).c_str(), &status);
    size += status.st_size;
  }
  return size;
}

std::vector<mlog::Source> open_all() {
  const mlog::Clocks clocks = mlog::read_clocks();
  std::vector<mlog::Source> sources;
  for (int module = 0; module < kModules; ++module) {
    sources.push_back(mlog::open_source(path_of(module), clocks, false));
  }
  return sources;
}

void MergeAll(benchmark::State &state) {
  const int64_t size = write_rings();
  int64_t lines = 0;
  for (auto _ : state) {
    const std::vector<mlog::Source> sources = open_all();
    mlog::Merge merge = mlog::merge_all(sources, state.range(0) != 0);
    while (merge.next()) ++lines;
  }
  state.SetItemsProcessed(lines);
  state.SetBytesProcessed(state.iterations() * size);
}

void MergeToFirstEntry(benchmark::State &state) {
  write_rings();
  for (auto _ : state) {
    const std::vector<mlog::Source> sources = open_all();
    mlog::Merge merge = mlog::merge_all(sources, state.range(0) != 0);
    if (!merge.next()) state.SkipWithError("no entry");
  }
}

std::string program() {
  const char *directory = std::getenv("MSGAPI_BIN");
  return std::string(directory == nullptr ? "." : directory) + "/mlog";
}

// Starts mlog with its output in a pipe. Returns the end to read from.
int start(const std::vector<const char *> &options, pid_t *pid) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) std::abort();
  const std::string path = program();
  std::vector<char *> arguments = {const_cast<char *>(path.c_str())};
  for (const char *option : options) arguments.push_back(const_cast<char *>(option));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  if (::posix_spawn(pid, path.c_str(), &actions, nullptr, arguments.data(), environ) != 0) {
    std::abort();
  }
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  return ends[0];
}

// The program from its start to its first bytes, or with `all` to its last.
void Program(benchmark::State &state, const std::vector<const char *> &options, bool all) {
  const int64_t size = write_rings();
  for (auto _ : state) {
    pid_t pid = 0;
    const int output = start(options, &pid);
    static std::array<char, 65536> bytes;
    do {
      if (::read(output, bytes.data(), bytes.size()) <= 0) break;
    } while (all);
    ::close(output);
    ::waitpid(pid, nullptr, 0);
  }
  if (all) state.SetBytesProcessed(state.iterations() * size);
}

BENCHMARK(MergeAll)->ArgName("forward")->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(MergeToFirstEntry)->ArgName("forward")->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Program, FirstBytes, {}, false)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Program, LastTenLines, {"-n", "10"}, true)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Program, Short, {}, true)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Program, Raw, {"-o", "raw"}, true)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Program, Grep, {"-g", "eth1[0-9]"}, true)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Program, Json, {"--json"}, true)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
