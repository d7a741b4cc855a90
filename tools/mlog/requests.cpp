// The commands that ask the server something.

#include <fmt/core.h>

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "commands.h"
#include "common/command_line.h"
#include "common/printable.h"
#include "common/unique_fd.h"
#include "mlogserver/line.h"
#include "mlogserver/questions.h"
#include "msgapi/log.h"
#include "printer.h"

namespace mlog {
namespace {

// Keeps the library's reports of failures off standard output, which is for answers. complain_of()
// prints them on standard error, once.
class QuietLibrary {
 public:
  QuietLibrary() {
    std::fflush(stdout);
    output_.reset(::dup(STDOUT_FILENO));
    const servers::UniqueFd null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (output_ && null) ::dup2(null.get(), STDOUT_FILENO);
  }
  QuietLibrary(const QuietLibrary &) = delete;
  QuietLibrary &operator=(const QuietLibrary &) = delete;
  ~QuietLibrary() {
    std::fflush(stdout);
    if (output_) ::dup2(output_.get(), STDOUT_FILENO);
  }

 private:
  servers::UniqueFd output_;
};

std::optional<std::string> statistics_of(const std::string &module, int32_t *result) {
  std::array<char, sizeof(MlogStat::info)> text{};
  const QuietLibrary quiet;
  *result = MlogGetStatInfo(module.c_str(), text.data(), static_cast<uint32_t>(text.size()));
  if (*result != 0) return std::nullopt;
  return text.data();
}

void complain_of(int32_t result) {
  if (result == MLOG_ERR_SOCKET) {
    complain("no socket of its own in " MLOG_IPC_PATH, kNoServer);
  } else {
    complain("the log server does not answer; is mlogserver running?", kNoServer);
  }
}

// None without a server, after saying so.
std::optional<std::string> ask(const std::string &question) {
  int32_t result = 0;
  std::optional<std::string> answer = statistics_of(question, &result);
  if (!answer) complain_of(result);
  return answer;
}

bool tell(const std::string &module, const std::string &text) {
  int32_t result = 0;
  {
    const QuietLibrary quiet;
    result = MlogSetStatInfo(module.c_str(), text.c_str());
  }
  if (result != 0) complain_of(result);
  return result == 0;
}

void check_name(const std::string &module) {
  if (!mlogserver::is_module_name(module)) {
    throw servers::UsageError(module + ": not a module's name");
  }
}

}  // namespace

void flush() {
  int32_t result = 0;
  {
    const QuietLibrary quiet;
    result = MlogFlushLog();
  }
  if (result == 0) return;
  if (result == MLOG_ERR_SOCKET) {
    complain_of(result);
    return;
  }
  // The flush failed, or lines before it are lost: the server knows which.
  const std::optional<std::string> state = ask(mlogserver::kStateQuestion);
  if (!state) return;
  if (state->empty()) {
    complain("lines were lost since the last flush; \"mlog modules\" shows whose", kLinesLost);
  } else {
    complain(*state, kLinesLost);
  }
}

void get(const Options &options) {
  const std::optional<std::string> text = ask(options.module);
  if (!text) return;
  if (text->empty()) {
    complain(options.module + ": the log server has no statistics of this module", kNoSuchModule);
    return;
  }
  // Any module's text may be set by anybody. A script gets it as it is.
  const bool terminal = ::isatty(STDOUT_FILENO) != 0;
  fmt::print("{}\n", terminal ? servers::printable(*text, "\n\t") : *text);
}

void set(const Options &options) {
  tell(options.module, options.text);
}

void level(const Options &options) {
  check_name(options.module);
  const std::string question = mlogserver::kLevelQuestion + options.module;
  std::string wanted;
  if (!options.level.empty()) {
    wanted = options.level;
    std::transform(wanted.begin(), wanted.end(), wanted.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const uint32_t level = MlogGetLogLevel(wanted.c_str());
    if (level != MLOG_LEVEL_NONE) {
      wanted = MlogGetLogLevelString(level);
    } else if (wanted != "NONE" && wanted != mlogserver::kConfiguredLevel) {
      throw servers::UsageError(options.level +
                                ": not one of NONE, FATL, ERRO, WARN, INFO and CONFIGURED");
    }
    if (!tell(question, wanted)) return;
  }
  const std::optional<std::string> now = ask(question);
  if (!now) return;
  if (!wanted.empty() && wanted != mlogserver::kConfiguredLevel && *now != wanted) {
    complain(
        fmt::format("the level of {} is {} as before: only the user of the log server and root "
                    "may set it, of 256 modules at most",
                    options.module, *now),
        kNotPermitted);
    return;
  }
  if (wanted.empty()) fmt::print("{}\n", servers::printable(*now));
}

void modules(const Options &options) {
  for (unsigned index = 0;; ++index) {
    const std::optional<std::string> line =
        ask(mlogserver::kModuleQuestion + std::to_string(index));
    if (!line || line->empty()) return;
    mlogserver::ModuleLine module;
    if (!mlogserver::parse_module_line(*line, &module)) {
      complain("the log server's answer makes no sense: " + *line);
      return;
    }
    if (options.json) {
      const nlohmann::ordered_json record{
          {"module", module.name},     {"level", module.level},
          {"kept", module.kept},       {"below_level", module.below_level},
          {"dropped", module.dropped}, {"lost", module.lost}};
      fmt::print("{}\n", json_line(record));
      continue;
    }
    if (index == 0) {
      fmt::print("{:<20} {:<5} {:>10} {:>12} {:>10} {:>10}\n", "MODULE", "LEVEL", "KEPT",
                 "BELOW LEVEL", "DROPPED", "LOST");
    }
    fmt::print("{:<20} {:<5} {:>10} {:>12} {:>10} {:>10}\n", servers::printable(module.name),
               servers::printable(module.level), module.kept, module.below_level, module.dropped,
               module.lost);
  }
}

}  // namespace mlog
