// mlog: reads the ring log files of mlogserver and talks to the server.

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/command_line.h"
#include "mlogserver/config.h"
#include "msgapi/log.h"
#include "msgapi/ringlog.h"
#include "printer.h"
#include "ring_reader.h"

namespace {

using namespace mlog;
namespace fs = std::filesystem;

constexpr const char *kConfigFile = "/etc/mlogserver.conf";

struct Options {
  std::string directory;
  std::vector<std::string> files;  // or names of modules
  std::vector<std::string> modules;
  std::string level = "INFO";
  std::string colour = "auto";
  bool json = false;
  bool wall_time = false;
  bool follow = false;
  size_t last = 10;
  std::string module;
  std::string text;
};

constexpr int kNoSuchModule = 4;

// The exit status. 1 after any complaint that has none of its own.
int g_status = EXIT_SUCCESS;

void complain(const std::string &text) {
  if (g_status == EXIT_SUCCESS) g_status = EXIT_FAILURE;
  fmt::print(stderr, "mlog: {}\n", text);
}

// Where the server keeps its files.
std::string log_directory(const Options &options) {
  if (!options.directory.empty()) return options.directory;
  mlogserver::Config config;
  if (fs::exists(kConfigFile)) config = mlogserver::read_config(kConfigFile);
  return MlogUseSharePartion() != 0 ? config.share_directory : config.directory;
}

// The named files, or all of the directory in the order of their names. While they are followed,
// what is not there yet is waited for and no mistake.
std::vector<std::string> ring_files(const Options &options) {
  const std::string directory = log_directory(options);
  std::vector<std::string> paths;
  for (const std::string &name : options.files) {
    const std::string in_directory = directory + "/" + name + ".log";
    const bool is_module = name.find('/') == std::string::npos &&
                           (fs::exists(in_directory) || (options.follow && !fs::exists(name)));
    paths.push_back(is_module ? in_directory : name);
  }
  if (!options.files.empty()) return paths;

  std::error_code error;
  for (const auto &entry : fs::directory_iterator(directory, error)) {
    if (entry.path().extension() == ".log") paths.push_back(entry.path());
  }
  const bool awaited = options.follow && error == std::errc::no_such_file_or_directory;
  if (error && !awaited) complain(fmt::format("{}: {}", directory, error.message()));
  std::sort(paths.begin(), paths.end());
  return paths;
}

Printer make_printer(const Options &options) {
  PrintOptions print;
  read_clocks(&print);
  print.json = options.json;
  print.wall_time = options.wall_time;
  print.is_terminal = ::isatty(STDOUT_FILENO) != 0;
  print.colour = options.colour == "always" || (options.colour == "auto" && print.is_terminal);
  print.level = MlogGetLogLevel(options.level.c_str());
  print.modules.insert(options.modules.begin(), options.modules.end());
  return Printer(std::move(print));
}

// The ring in a file, after its problems were told; false when it cannot be read at all.
bool load(const std::string &path, Ring *ring) {
  try {
    *ring = read_ring(load_ring(path));
  } catch (const std::exception &error) {
    complain(error.what());
    return false;
  }
  for (const std::string &problem : ring->problems) complain(path + ": " + problem);
  return true;
}

void cat(const Options &options) {
  const Printer printer = make_printer(options);
  for (const std::string &path : ring_files(options)) {
    Ring ring;
    if (!load(path, &ring)) continue;
    const size_t this_boot = first_of_this_boot(ring.entries, printer.options().uptime_ms);
    for (size_t i = 0; i < ring.entries.size(); ++i) printer.print(ring.entries[i], i >= this_boot);
  }
}

// A file whose new entries are printed.
class Follower {
 public:
  // Prints the last entries that the file holds now, or takes all as new.
  void start(const std::string &path, const Printer &printer, size_t last) {
    Ring ring;
    if (!load(path, &ring)) return;
    remember(ring.header, ring.entries);
    const size_t this_boot = first_of_this_boot(ring.entries, printer.options().uptime_ms);
    size_t first = ring.entries.size();
    while (first > 0 && last > 0) {
      if (printer.wants(ring.entries[--first])) --last;
    }
    for (; first < ring.entries.size(); ++first) {
      printer.print(ring.entries[first], first >= this_boot);
    }
  }

  void poll(const std::string &path, const Printer &printer) {
    try {
      const std::string bytes = load_ring(path);
      const std::optional<RingHeader> header = parse_header(bytes);
      if (!header || header == header_) return;
      bool missed = false;
      const std::vector<Entry> entries =
          entries_since(header_.value_or(RingHeader{0, MLOG_FILE_HEADER_SIZE, 0}), last_uptime_ms_,
                        bytes, &missed);
      if (missed) complain(path + ": lines were overwritten before they were read");
      for (const Entry &entry : entries) printer.print(entry, true);
      remember(header, entries);
    } catch (const std::exception &error) {
      // Reported when following began; the file may come back.
    }
  }

 private:
  void remember(const std::optional<RingHeader> &header, const std::vector<Entry> &entries) {
    header_ = header;
    for (const Entry &entry : entries) {
      if (entry.has_head) last_uptime_ms_ = entry.uptime_ms;
    }
  }

  std::optional<RingHeader> header_;
  int64_t last_uptime_ms_ = 0;
};

void tail(const Options &options) {
  const Printer printer = make_printer(options);
  std::map<std::string, Follower> followers;
  for (const std::string &path : ring_files(options)) {
    if (!options.follow || fs::exists(path)) followers[path].start(path, printer, options.last);
  }
  while (options.follow) {
    std::fflush(stdout);
    if (std::ferror(stdout) != 0) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    // Modules that begin to log now are followed, too.
    for (const std::string &path : ring_files(options)) followers[path].poll(path, printer);
  }
}

void stat(const Options &options) {
  for (const std::string &path : ring_files(options)) {
    Ring ring;
    if (!load(path, &ring)) continue;
    std::map<std::string, size_t> levels;
    const Entry *oldest = nullptr;
    const Entry *newest = nullptr;
    for (const Entry &entry : ring.entries) {
      ++levels[entry.has_head ? MlogGetLogLevelString(entry.level) : "none"];
      if (!entry.has_head) continue;
      if (oldest == nullptr) oldest = &entry;
      newest = &entry;
    }

    nlohmann::ordered_json record;
    record["file"] = path;
    record["bytes"] = ring.file_size;
    if (ring.header) {
      record["overturns"] = ring.header->overturn;
      record["offset"] = ring.header->offset;
    }
    record["entries"] = ring.entries.size();
    record["levels"] = levels;
    if (oldest != nullptr) {
      record["oldest_uptime_ms"] = oldest->uptime_ms;
      record["newest_uptime_ms"] = newest->uptime_ms;
    }
    record["problems"] = ring.problems;
    if (options.json) {
      fmt::print("{}\n", record.dump());
      continue;
    }
    fmt::print("{}:", path);
    for (const auto &[key, value] : record.items()) {
      if (key != "file" && key != "problems") fmt::print(" {} {}", key, value.dump());
    }
    fmt::print("\n");
  }
}

void check_answer(int32_t result) {
  if (result == MLOG_ERR_SOCKET) {
    complain("no socket of its own in " MLOG_IPC_PATH);
  } else if (result != 0) {
    complain("the log server did not do it; is mlogserver running?");
  }
}

void get(const Options &options) {
  std::array<char, sizeof(MlogStat::info)> text{};
  const int32_t result =
      MlogGetStatInfo(options.module.c_str(), text.data(), static_cast<uint32_t>(text.size()));
  check_answer(result);
  if (result != 0) return;
  if (text[0] == '\0') {
    complain(options.module + ": the log server has no statistics of this module");
    g_status = kNoSuchModule;
    return;
  }
  fmt::print("{}\n", text.data());
}

void add_files(servers::Command *command, Options *options) {
  command->arguments("files", &options->files, "Modules or files; all modules when left out",
                     servers::Presence::kOptional);
  command->option("--directory", &options->directory, "Where mlogserver keeps its files");
  command->flag("--json", &options->json, "One JSON object for each line");
}

void add_filters(servers::Command *command, Options *options) {
  add_files(command, options);
  command->choice("--level", &options->level, {"FATL", "ERRO", "WARN", "INFO"},
                  "Leave out what is less important");
  command->option("--module", &options->modules, "Only the lines of this module (repeatable)");
  command->flag("--time", &options->wall_time,
                "Time of day (UTC) instead of uptime, for lines of the running boot");
  command->choice("--colour,--color", &options->colour, {"auto", "always", "never"},
                  "Whether levels are coloured; auto: on a terminal");
}

}  // namespace

int main(int argc, char **argv) try {
  servers::CommandLine line("mlog", "Reads the log files of mlogserver and talks to the server.");
  Options options;

  servers::Command command =
      line.command("cat", "Print log files, the oldest lines first", [&options] { cat(options); });
  add_filters(&command, &options);

  command =
      line.command("tail", "Print the last lines of log files", [&options] { tail(options); });
  add_filters(&command, &options);
  command.flag("-f,--follow", &options.follow, "Go on with the lines that are added");
  command.number("-n,--lines", &options.last, "How many lines of each file");

  command =
      line.command("stat", "Size, turns and contents of log files", [&options] { stat(options); });
  add_files(&command, &options);

  line.command("flush", "Have the server write everything to disk",
               [] { check_answer(MlogFlushLog()); });

  command =
      line.command("get", "Print the statistics text of a module", [&options] { get(options); });
  command.argument("module", &options.module, "its name", servers::Presence::kRequired);

  command = line.command("set", "Set the statistics text of a module", [&options] {
    check_answer(MlogSetStatInfo(options.module.c_str(), options.text.c_str()));
  });
  command.argument("module", &options.module, "its name", servers::Presence::kRequired);
  command.argument("text", &options.text, "the new text", servers::Presence::kRequired);

  if (const std::optional<int> status = line.parse(argc, argv)) return *status;
  return g_status;
} catch (const std::exception &error) {
  std::fprintf(stderr, "mlog: %s\n", error.what());
  return EXIT_FAILURE;
}
