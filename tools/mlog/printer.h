// Prints entries.
#pragma once

#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "ring_reader.h"

namespace mlog {

enum class Output {
  kShort,  // time, module, level and text
  kFull,   // the same, with the uptime and the file
  kJson,   // one object for each entry
  kRaw,    // as in the file
};

struct PrintOptions {
  Output output = Output::kShort;
  bool utc = false;
  bool raw_time = false;  // raw: the time of day (UTC) instead of the uptime
  bool colour = false;
  bool clean = false;  // raw: "?" for what a terminal may obey; the other forms always do that
};

// A record on one line, whatever its texts hold: as UTF-8, and nothing in it commands a terminal.
std::string json_line(const nlohmann::ordered_json &record);

class Printer {
 public:
  explicit Printer(PrintOptions options) : options_(options) {}
  Printer(const Printer &) = delete;
  Printer &operator=(const Printer &) = delete;
  ~Printer() { flush(); }

  const PrintOptions &options() const { return options_; }

  // `time_ms` is the time of day, if it is known; `path` names the entry's file.
  void print(const Entry &entry, std::optional<int64_t> time_ms, std::string_view path);
  // Prints a line about the log, for example that another boot begins. Raw output has none.
  void print_marker(std::string_view text);

  // Writes out everything that was printed. False when nobody reads it any more.
  bool flush();

 private:
  void add_short(const Entry &entry, std::optional<int64_t> time_ms, std::string_view path);
  void add_json(const Entry &entry, std::optional<int64_t> time_ms);
  void add_raw(const Entry &entry, std::optional<int64_t> time_ms);
  void add_clean(std::string_view text);
  void add_time(int64_t time_ms, bool iso);
  void add_json_string(std::string_view text);

  PrintOptions options_;
  std::string out_;
  bool broken_ = false;
  // The second that was formatted last, and its text: most entries share it with the one before.
  int64_t formatted_s_ = INT64_MIN;
  bool formatted_iso_ = false;
  std::string formatted_;
};

}  // namespace mlog
