// The commands that read log files.

#include <fmt/core.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>
#include <utility>

#include "commands.h"
#include "common/command_line.h"
#include "common/printable.h"
#include "directory.h"
#include "filter.h"
#include "merge.h"
#include "msgapi/log.h"
#include "pager.h"
#include "printer.h"
#include "time_text.h"

namespace mlog {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kLookEvery(100);
constexpr int64_t kLinesBeforeFollowing = 10;

// The named files, or all of the directory in the order of their names. With --follow a file need
// not exist yet.
std::vector<std::string> ring_files(const Options &options) {
  const std::string directory = log_directory(options);
  std::vector<std::string> paths;
  for (const std::string &name : options.files) {
    const std::string in_directory = directory + "/" + name + ".log";
    const bool is_module = name.find('/') == std::string::npos &&
                           (fs::exists(in_directory) || (options.follow && !fs::exists(name)));
    if (is_module) {
      paths.push_back(in_directory);
    } else if (std::error_code error; fs::is_directory(name, error)) {
      for (const auto &entry : fs::directory_iterator(name, error)) {
        if (entry.path().extension() == ".log") paths.push_back(entry.path());
      }
    } else {
      paths.push_back(name);
    }
  }
  if (!options.files.empty()) {
    std::sort(paths.begin(), paths.end());
    return paths;
  }

  std::error_code error;
  for (const auto &entry : fs::directory_iterator(directory, error)) {
    if (entry.path().extension() == ".log") paths.push_back(entry.path());
  }
  const bool awaited = options.follow && error == std::errc::no_such_file_or_directory;
  if (error && !awaited) complain(fmt::format("{}: {}", directory, error.message()));
  std::sort(paths.begin(), paths.end());
  return paths;
}

Filter make_filter(const Options &options, const Clocks &clocks) {
  Filter filter;
  const std::optional<LevelRange> levels = parse_levels(options.levels);
  if (!levels) {
    throw servers::UsageError(options.levels +
                              ": not a level (NONE, FATL, ERRO, WARN, INFO or 0, 1, 2, 4, 8) or "
                              "two of them with \"..\" between");
  }
  filter.levels = *levels;
  filter.modules = options.modules;
  if (!options.pattern.empty()) {
    try {
      filter.pattern.emplace(options.pattern, options.match_case);
    } catch (const std::runtime_error &error) {
      throw servers::UsageError(error.what());
    }
  }
  const auto time = [&](const std::string &text) -> std::optional<int64_t> {
    if (text.empty()) return std::nullopt;
    const std::optional<int64_t> time_ms = parse_time(text, clocks, options.utc);
    if (!time_ms) {
      throw servers::UsageError(text +
                                ": not a time such as \"2026-11-22 02:10\", 02:10, -5min, today, "
                                "yesterday or boot");
    }
    return time_ms;
  };
  filter.since_ms = time(options.since);
  filter.until_ms = time(options.until);
  return filter;
}

PrintOptions make_print_options(const Options &options) {
  static const std::map<std::string, Output> kOutputs = {{"short", Output::kShort},
                                                         {"full", Output::kFull},
                                                         {"json", Output::kJson},
                                                         {"raw", Output::kRaw}};
  const bool is_terminal = ::isatty(STDOUT_FILENO) != 0;
  PrintOptions print;
  print.output = options.json ? Output::kJson : kOutputs.at(options.output);
  print.utc = options.utc;
  print.raw_time = options.wall_time;
  print.clean = is_terminal;
  print.colour = options.colour == "always" || (options.colour == "auto" && is_terminal);
  return print;
}

// Every file needs a descriptor, and a directory may hold more files than the usual limit.
void raise_descriptor_limit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

// Where this machine's log server writes its files, by its configuration; empty when that cannot be
// read, as it need not be with --directory.
fs::path server_place() try {
  std::error_code error;
  return fs::weakly_canonical(server_directory(), error);
} catch (const std::exception &) {
  return {};
}

// Whether a file is anywhere else, or nobody knows.
bool is_elsewhere(const std::string &path, const fs::path &server_place) {
  std::error_code error;
  const fs::path there = fs::weakly_canonical(fs::absolute(path, error).parent_path(), error);
  return there.empty() || there != server_place;
}

std::string format_uptime(int64_t uptime_ms) {
  return fmt::format("{}.{:03} s", uptime_ms / 1000, uptime_ms % 1000);
}

// A look at logs: what is wanted, how it is printed, and which files there are.
class View {
 public:
  explicit View(const Options &options)
      : options_(options),
        clocks_(read_clocks()),
        filter_(make_filter(options, clocks_)),
        printer_(make_print_options(options)) {
    raise_descriptor_limit();
  }

  const Filter &filter() const { return filter_; }
  Printer &printer() { return printer_; }

  // Opens the files that can be read and reports their problems.
  std::vector<Source> open() {
    std::vector<Source> sources;
    const fs::path place = server_place();
    for (const std::string &path : ring_files(options_)) {
      if (options_.follow && !fs::exists(path)) continue;
      try {
        sources.push_back(open_source(path, clocks_, options_.follow));
        sources.back().elsewhere = is_elsewhere(path, place);
      } catch (const std::exception &error) {
        complain(error.what());
        continue;
      }
      for (const std::string &problem : sources.back().layout.problems) {
        complain(fmt::format("{}: {}", path, problem));
      }
    }
    return sources;
  }

  // The time of day of an entry; none for an earlier boot. Boots are counted back from the running
  // one.
  std::optional<int64_t> time_of(const Entry &entry, unsigned boot, bool elsewhere) const {
    if (boot != 0 || elsewhere || !entry.has_head) return std::nullopt;
    return clocks_.boot_ms + entry.uptime_ms;
  }
  std::optional<int64_t> time_of(const Merge &merge) const {
    return time_of(merge.cursor().entry(), merge.boot(), merge.source().elsewhere);
  }

  bool wants(const Merge &merge) const {
    return filter_.wants(merge.cursor().entry(), time_of(merge));
  }

  // Prints up to `most` wanted entries of a merge, with a marker where another boot begins.
  void print(Merge *merge, const std::vector<Source> &sources, int64_t most = INT64_MAX) {
    std::optional<unsigned> last_boot;
    int64_t last_ms = 0;
    while (most > 0 && merge->next()) {
      const Cursor &cursor = merge->cursor();
      const unsigned boot = merge->boot();
      const std::optional<int64_t> time_ms = time_of(*merge);
      if (!filter_.wants(cursor.entry(), time_ms)) continue;
      if (marks_boots_ && last_boot && *last_boot != boot) mark_restart(last_ms, cursor.key_ms());
      printer_.print(cursor.entry(), time_ms, sources[merge->index()].path);
      last_boot = boot;
      last_ms = cursor.key_ms();
      --most;
    }
    for (size_t i = 0; i < sources.size(); ++i) {
      if (merge->missed(i)) tell_missed(sources[i].path);
    }
  }

  // Where the last `count` wanted entries of all files begin, for each file.
  std::vector<std::optional<Place>> last_places(const std::vector<Source> &sources,
                                                int64_t count) const {
    std::vector<std::optional<Place>> places(sources.size());
    Merge merge = merge_all(sources, false);
    while (count > 0 && merge.next()) {
      if (!wants(merge)) continue;
      places[merge.index()] = merge.cursor().place();
      --count;
    }
    return places;
  }

  // Prints what is added to these files and to new ones until nobody reads the output any more.
  void follow(std::vector<Source> sources);

  void without_markers() { marks_boots_ = false; }

 private:
  // A file that is followed.
  struct Track {
    bool elsewhere = false;
    std::unique_ptr<Follower> follower;
    int64_t key_ms = 0;
  };
  // An entry that was added.
  struct Added {
    int64_t key_ms;
    std::string text;
    const std::string *path;
    bool elsewhere;
  };

  void mark_restart(int64_t from_ms, int64_t to_ms) {
    printer_.print_marker(fmt::format("another boot of the device: uptime goes from {} to {}",
                                      format_uptime(from_ms), format_uptime(to_ms)));
  }

  void tell_missed(const std::string &path) {
    printer_.flush();
    complain(path + ": lines were overwritten before they were read", kLinesLost);
  }

  void collect(const std::string &path, Track *track);
  void print_added();
  bool is_read() const;

  const Options &options_;
  Clocks clocks_;
  Filter filter_;
  Printer printer_;
  bool marks_boots_ = true;
  std::map<std::string, Track> tracks_;
  std::vector<Added> added_;
};

void View::collect(const std::string &path, Track *track) {
  std::vector<std::string> texts;
  track->follower->poll(&texts);
  for (std::string &text : texts) {
    const Entry entry(text);
    if (entry.has_head && entry.uptime_ms + kSmallStep_ms < track->key_ms) {
      // The uptime starts again at a restart, so what came before it must be printed first.
      print_added();
      if (marks_boots_) mark_restart(track->key_ms, entry.uptime_ms);
      for (auto &[other, reset] : tracks_) reset.key_ms = 0;
    }
    if (entry.has_head) track->key_ms = std::max(track->key_ms, entry.uptime_ms);
    added_.push_back({track->key_ms, std::move(text), &path, track->elsewhere});
  }
  if (track->follower->missed()) tell_missed(path);
}

void View::print_added() {
  std::stable_sort(added_.begin(), added_.end(), [](const Added &left, const Added &right) {
    return left.key_ms < right.key_ms;
  });
  for (const Added &added : added_) {
    const Entry entry(added.text);
    const std::optional<int64_t> time_ms = time_of(entry, 0, added.elsewhere);
    if (filter_.wants(entry, time_ms)) printer_.print(entry, time_ms, *added.path);
  }
  added_.clear();
}

// A pipe tells that nobody reads it any more without being written to (poll(2), POLLERR).
bool View::is_read() const {
  pollfd output{STDOUT_FILENO, 0, 0};
  return ::poll(&output, 1, 0) <= 0 || (output.revents & (POLLERR | POLLNVAL)) == 0;
}

void View::follow(std::vector<Source> sources) {
  for (const Source &source : sources) {
    Cursor last = Cursor::backwards(source.file.get(), source.layout);
    while (last.next() && !last.entry().has_head) {
    }
    Track &track = tracks_[source.path];
    track.elsewhere = source.elsewhere;
    track.follower = std::make_unique<Follower>(source.file, &source.layout);
    track.key_ms = last.entry().has_head ? last.entry().uptime_ms : 0;
  }
  sources.clear();

  while (printer_.flush() && is_read()) {
    std::this_thread::sleep_for(kLookEvery);
    for (const std::string &path : ring_files(options_)) {
      Track &track = tracks_[path];
      try {
        // A file that was replaced is read to its end before its successor.
        if (track.follower && track.follower->file().is_at(path)) continue;
        auto file = std::make_shared<RingFile>(path);
        if (track.follower) collect(tracks_.find(path)->first, &track);
        track.elsewhere = is_elsewhere(path, server_place());
        track.follower = std::make_unique<Follower>(std::move(file), nullptr);
      } catch (const std::exception &) {
        // It is not there yet, or not any more.
      }
    }
    clocks_ = read_clocks();
    for (auto &[path, track] : tracks_) {
      if (track.follower) collect(path, &track);
    }
    print_added();
  }
}

struct LevelCount {
  uint64_t lines = 0;
  uint64_t bytes = 0;
};

struct ModuleCount {
  std::map<uint32_t, LevelCount> levels;
  uint64_t lost = 0;     // could not be written
  uint64_t dropped = 0;  // by the limit of the module
};

// Counts the lost lines that the server's notices in the log tell of.
void count_notice(std::string_view message, ModuleCount *count) {
  constexpr std::string_view kServer = "mlogserver: ";
  if (!message.starts_with(kServer)) return;
  message.remove_prefix(kServer.size());
  const size_t digits = std::min(message.find_first_not_of("0123456789"), message.size());
  if (digits == 0 || digits > 18) return;
  const uint64_t number = std::stoull(std::string(message.substr(0, digits)));
  message.remove_prefix(digits);
  if (message == " lines before this one are lost") count->lost += number;
  if (message.starts_with(" lines dropped from ")) count->dropped += number;
}

void show_statistics(const View &view, const std::vector<Source> &sources, bool json) {
  std::map<std::string, ModuleCount, std::less<>> modules;
  Merge merge = merge_all(sources, false);
  while (merge.next()) {
    if (!view.wants(merge)) continue;
    const Entry &entry = merge.cursor().entry();
    const std::string_view name = entry.has_head ? entry.module : std::string_view("(none)");
    auto module = modules.find(name);
    if (module == modules.end()) module = modules.emplace(name, ModuleCount()).first;
    LevelCount &level = module->second.levels[entry.level];
    ++level.lines;
    level.bytes += entry.text.size() + 1;
    count_notice(entry.message, &module->second);
  }

  if (!json) fmt::print("{:<20} {:<5} {:>10} {:>12}\n", "MODULE", "LEVEL", "LINES", "BYTES");
  for (const auto &[name, module] : modules) {
    if (json) {
      nlohmann::ordered_json record{{"module", name}};
      for (const auto &[level, count] : module.levels) {
        record["levels"][MlogGetLogLevelString(level)] = {{"lines", count.lines},
                                                          {"bytes", count.bytes}};
      }
      record["lost"] = module.lost;
      record["dropped"] = module.dropped;
      fmt::print("{}\n", json_line(record));
      continue;
    }
    const std::string shown = servers::printable(name);
    for (const auto &[level, count] : module.levels) {
      fmt::print("{:<20} {:<5} {:>10} {:>12}\n", shown, MlogGetLogLevelString(level), count.lines,
                 count.bytes);
    }
    if (module.lost > 0) fmt::print("{:<20} lost  {:>10}\n", shown, module.lost);
    if (module.dropped > 0) fmt::print("{:<20} dropped {:>8}\n", shown, module.dropped);
  }
}

}  // namespace

std::string log_directory(const Options &options) {
  return options.directory.empty() ? server_directory() : options.directory;
}

void show(const Options &options) {
  if (options.follow && (options.reverse || options.statistics)) {
    throw servers::UsageError("--follow does not go together with --reverse and --stats");
  }
  View view(options);
  std::vector<Source> sources = view.open();
  if (options.statistics) {
    show_statistics(view, sources, options.json);
    return;
  }

  std::optional<Pager> pager;
  if (!options.follow && !options.no_pager && ::isatty(STDOUT_FILENO) != 0) pager.emplace();
  const int64_t lines = options.follow && options.lines < 0 ? kLinesBeforeFollowing : options.lines;
  if (lines < 0) {
    Merge merge = merge_all(sources, !options.reverse);
    view.print(&merge, sources);
  } else if (options.reverse) {
    Merge merge = merge_all(sources, false);
    view.print(&merge, sources, lines);
  } else {
    Merge merge = merge_from(sources, view.last_places(sources, lines));
    view.print(&merge, sources);
  }
  if (options.follow) view.follow(std::move(sources));
  view.printer().flush();
}

void cat(const Options &options) {
  View view(options);
  view.without_markers();
  for (Source &source : view.open()) {
    std::vector<Source> one;
    one.push_back(std::move(source));
    Merge merge = merge_all(one, true);
    view.print(&merge, one);
  }
}

void tail(const Options &options) {
  View view(options);
  view.without_markers();
  std::vector<Source> sources = view.open();
  for (const Source &source : sources) {
    const std::vector<Source> one = {source};
    Merge merge = merge_from(one, view.last_places(one, options.lines));
    view.print(&merge, one);
  }
  if (options.follow) view.follow(std::move(sources));
}

void stat(const Options &options) {
  View view(options);
  for (const Source &source : view.open()) {
    std::map<std::string, size_t> levels;
    std::optional<int64_t> oldest_ms;
    int64_t newest_ms = 0;
    size_t entries = 0;
    std::vector<std::string> problems = source.layout.problems;
    Cursor cursor = Cursor::forwards(source.file.get(), source.layout, 0);
    for (; cursor.next(); ++entries) {
      const Entry &entry = cursor.entry();
      ++levels[entry.has_head ? MlogGetLogLevelString(entry.level) : "none"];
      if (!entry.has_head) continue;
      if (!oldest_ms) oldest_ms = entry.uptime_ms;
      newest_ms = entry.uptime_ms;
    }
    if (cursor.holes() > 0) {
      problems.push_back(fmt::format("{} bytes were never written", cursor.holes()));
      complain(fmt::format("{}: {}", source.path, problems.back()));
    }

    nlohmann::ordered_json record;
    record["file"] = source.path;
    record["bytes"] = source.layout.file_size;
    if (source.layout.header) {
      record["overturns"] = source.layout.header->overturn;
      record["offset"] = source.layout.header->offset;
    }
    record["entries"] = entries;
    record["levels"] = levels;
    if (oldest_ms) {
      record["oldest_uptime_ms"] = *oldest_ms;
      record["newest_uptime_ms"] = newest_ms;
    }
    record["problems"] = problems;
    if (options.json) {
      fmt::print("{}\n", json_line(record));
      continue;
    }
    fmt::print("{}:", servers::printable(source.path));
    for (const auto &[key, value] : record.items()) {
      if (key != "file" && key != "problems") fmt::print(" {} {}", key, value.dump());
    }
    fmt::print("\n");
  }
}

}  // namespace mlog
