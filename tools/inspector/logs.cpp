#include "inspector/logs.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "common/printable.h"
#include "mlog/merge.h"
#include "mlog/time_text.h"

namespace inspector {
namespace {

namespace fs = std::filesystem;

std::vector<mlog::Source> open_sources(const std::string &directory, const mlog::Clocks &clocks,
                                       Json *problems) {
  std::vector<std::string> paths;
  std::error_code error;
  for (const auto &entry : fs::directory_iterator(directory, error)) {
    if (entry.path().extension() == ".log") paths.push_back(entry.path());
  }
  if (error) problems->push_back(servers::printable(directory + ": " + error.message()));
  std::sort(paths.begin(), paths.end());
  std::vector<mlog::Source> sources;
  for (const std::string &path : paths) {
    try {
      sources.push_back(mlog::open_source(path, clocks, true));
    } catch (const std::runtime_error &failure) {
      problems->push_back(servers::printable(failure.what()));
    }
  }
  return sources;
}

// Printable except for its line feeds, and without the tabs that the log server puts behind these.
std::string shown(std::string_view text) {
  std::string lines;
  for (;;) {
    const size_t end = text.find('\n');
    lines += servers::printable(text.substr(0, end));
    if (end == std::string_view::npos) return lines;
    lines += '\n';
    text.remove_prefix(end + 1);
    if (text.starts_with('\t')) text.remove_prefix(1);
  }
}

Json line_json(const mlog::Entry &entry, int64_t time_ms) {
  return {{"at_us", time_ms * 1000},
          {"module", servers::printable(entry.module)},
          {"level", servers::printable(entry.level_name)},
          {"text", shown(entry.message)}};
}

}  // namespace

Json log_lines(const std::string &directory, const Range &range, size_t most) {
  constexpr uint64_t kMillisecond_ns = 1'000'000;
  Json problems = Json::array();
  const mlog::Clocks clocks = mlog::read_clocks();
  const std::vector<mlog::Source> sources = open_sources(directory, clocks, &problems);
  const auto from_ms = static_cast<int64_t>(range.from_ns / kMillisecond_ns);
  const auto to_ms = static_cast<int64_t>(range.to_ns / kMillisecond_ns);

  std::vector<Json> newest_first;
  bool more = false;
  mlog::Merge merge = mlog::merge_all(sources, false);
  while (merge.next() && merge.boot() == 0) {
    const mlog::Entry &entry = merge.cursor().entry();
    if (!entry.has_head) continue;
    const int64_t time_ms = clocks.boot_ms + entry.uptime_ms;
    if (time_ms < from_ms) break;
    if (time_ms > to_ms) continue;
    more = newest_first.size() >= most;
    if (more) break;
    newest_first.push_back(line_json(entry, time_ms));
  }
  std::reverse(newest_first.begin(), newest_first.end());
  return {{"lines", std::move(newest_first)}, {"more", more}, {"problems", std::move(problems)}};
}

}  // namespace inspector
