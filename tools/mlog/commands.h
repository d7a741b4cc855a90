// What mlog does, one function for each of its commands.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mlog {

// Exit statuses, as servers/common/exit_status.h has them for all programs.
constexpr int kReceiverRefused = 1;
constexpr int kNoServer = 3;
constexpr int kNoSuchModule = 4;
constexpr int kNotPermitted = 7;
constexpr int kLinesLost = 8;

struct Options {
  // Which files, and which of their entries.
  std::string directory;
  std::vector<std::string> files;  // paths or names of modules
  std::vector<std::string> modules;
  std::string levels = "INFO";
  std::string pattern;
  bool match_case = false;
  std::string since;
  std::string until;
  int64_t lines = -1;  // only the last ones; all when negative

  // How they are printed.
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

// Prints what is wrong on standard error. The first call decides the exit status.
void complain(const std::string &text, int status = kReceiverRefused);
int exit_status();
void set_exit_status(int status);

// Where the server keeps its files.
std::string log_directory(const Options &options);

// Prints all files as one log.
void show(const Options &options);
// Prints file after file, each as it is.
void cat(const Options &options);
void tail(const Options &options);
// Prints one line about each file.
void stat(const Options &options);

// Log lines for shell scripts and for other programs.
void print(const Options &options);
void run(const Options &options);

// Requests to the server.
void flush();
void get(const Options &options);
void set(const Options &options);
void level(const Options &options);
void modules(const Options &options);

}  // namespace mlog
