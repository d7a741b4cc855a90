// The command line of a program: its options, arguments and commands, their help and the messages
// about mistakes, alike in every program. `--help` and `--version` are always there.
//
// Only cli11.cpp includes the library that does the work, because it takes seconds to compile.
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}

namespace servers {

// The exit status after a mistake in the command line.
constexpr int kUsageStatus = 2;

// A mistake in the command line that only the program itself can find.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The numbers that an option takes.
struct Range {
  int64_t least;
  int64_t most;
};

template <std::integral T>
constexpr Range kAll = {std::numeric_limits<T>::min(),
                        std::in_range<int64_t>(std::numeric_limits<T>::max())
                            ? static_cast<int64_t>(std::numeric_limits<T>::max())
                            : std::numeric_limits<int64_t>::max()};

enum class Presence { kOptional, kRequired };

// What a command takes. Options are named "--long" or "-s,--long". The value that a pointer leads
// to stays when the option is not given, and must outlive parse(). The help shows it as the default
// unless it is empty or out of range.
class Command {
 public:
  explicit Command(CLI::App *app) : app_(app) {}

  void option(const char *names, std::string *value, const char *help);
  // May be given several times, each time with one value; the first replaces the default.
  void option(const char *names, std::vector<std::string> *values, const char *help);
  // One of `choices`, in capitals or not; `*value` gets the form that is in the list.
  void choice(const char *names, std::string *value, std::initializer_list<const char *> choices,
              const char *help);
  void flag(const char *names, bool *value, const char *help);

  template <std::integral T>
  void number(const char *names, T *value, const char *help, Range range = kAll<T>) {
    add_number(
        names, static_cast<int64_t>(*value),
        [value](int64_t number) { *value = static_cast<T>(number); }, help, range);
  }

  // An argument without a name of its own, in the order of these calls; `label` stands for it.
  void argument(const char *label, std::string *value, const char *help, Presence presence);
  void arguments(const char *label, std::vector<std::string> *values, const char *help,
                 Presence presence);

 protected:
  CLI::App *app_;

 private:
  void add_number(const char *names, int64_t value, std::function<void(int64_t)> store,
                  const char *help, Range range);
};

// Words that the shell has taken apart, with spaces between them.
std::string joined(const std::vector<std::string> &words);

class CommandLine : public Command {
 public:
  // `program` begins every message and the line that --version prints.
  CommandLine(const char *program, const char *about);
  ~CommandLine();
  CommandLine(const CommandLine &) = delete;
  CommandLine &operator=(const CommandLine &) = delete;

  // A command of a program that does several things. `action` runs within parse(), after everything
  // has been checked; its exceptions pass through, except for UsageError. A program with commands
  // must be given one.
  Command command(const char *name, const char *help, std::function<void()> action);

  // Fills in the values. Returns an exit status when the program should end: 0 after --help and
  // --version, kUsageStatus after a mistake, which has been printed on standard error.
  std::optional<int> parse(int argc, char **argv);

  // Says what is wrong with the command line. Returns kUsageStatus.
  int usage_error(const std::string &mistake) const;

  // Mistakes are given to `tell` instead of standard error.
  void tell_mistakes(std::function<void(const std::string &)> tell) { tell_ = std::move(tell); }

 private:
  std::function<void(const std::string &)> tell_;
  std::unique_ptr<CLI::App> owned_;
};

}  // namespace servers
