// What mlog does, one function for each of its commands.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mlog {

// Exit statuses, alike in all programs of this system.
constexpr int kReceiverRefused = 1;
constexpr int kNoServer = 3;
constexpr int kNoSuchModule = 4;
constexpr int kNotPermitted = 7;
constexpr int kLinesLost = 8;

struct Options {
  // Which files, and what of them.
  std::string directory;
  std::vector<std::string> files;  // or names of modules
  std::vector<std::string> modules;
  std::string levels = "INFO";
  std::string pattern;
  bool match_case = false;
  std::string since;
  std::string until;
  int64_t lines = -1;  // the last ones only; all when negative

  // How.
  std::string output = "short";
  bool json = false;
  bool utc = false;
  bool wall_time = false;
  std::string colour = "auto";
  bool follow = false;
  bool reverse = false;
  bool statistics = false;
  bool no_pager = false;

  // Of the commands that talk to the server.
  std::string module;
  std::string level;
  std::string error_level = "WARN";
  std::string text;
  std::vector<std::string> words;
};

// Says what is wrong. The exit status becomes `status` unless it already is another than 0.
void complain(const std::string &text, int status = kReceiverRefused);
int exit_status();
void set_exit_status(int status);

// Where the server keeps its files.
std::string log_directory(const Options &options);

// All files as one log.
void show(const Options &options);
// File after file, as they are.
void cat(const Options &options);
void tail(const Options &options);
// One line about each file.
void stat(const Options &options);

// Lines of shell scripts and other programs.
void print(const Options &options);
void run(const Options &options);

// Requests to the server.
void flush();
void get(const Options &options);
void set(const Options &options);
void level(const Options &options);
void modules(const Options &options);

}  // namespace mlog
