// mlog: reads the ring log files of mlogserver, writes lines and talks to the server.

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "commands.h"
#include "common/command_line.h"
#include "common/log_line.h"

namespace {

using namespace mlog;
using servers::Presence;

int g_status = EXIT_SUCCESS;

constexpr std::array kCommands = {"show",  "cat", "tail", "stat",  "print",  "run",
                                  "flush", "get", "set",  "level", "modules"};

void add_files(servers::Command *command, Options *options) {
  command->arguments("files", &options->files,
                     "Modules, files or directories; all modules when left out",
                     Presence::kOptional);
  command->option("--directory", &options->directory, "Where mlogserver keeps its files");
  command->flag("--json", &options->json, "One JSON object for each line");
}

void add_filters(servers::Command *command, Options *options) {
  add_files(command, options);
  command->option("-p,--level", &options->levels,
                  "Leave out what is less important, or what is not in a range such as ERRO..WARN");
  command->option("-m,--module", &options->modules,
                  "Only the lines of this module, with the wildcards of the shell (repeatable)");
  command->option("-g,--grep", &options->pattern,
                  "Only texts with a match of this extended regular expression; without capital "
                  "letters in it, in either case");
  command->flag("--case", &options->match_case, "--grep tells capital letters from others");
  command->option("-S,--since", &options->since,
                  "Only lines from then on: \"2026-11-22 02:10\", 02:10, -5min, today, yesterday "
                  "or boot");
  command->option("-U,--until", &options->until, "Only lines up to then");
  command->flag("--utc", &options->utc, "Times of day are in UTC, not in local time");
  command->choice("--colour,--color", &options->colour, {"auto", "always", "never"},
                  "Whether levels are coloured; auto: on a terminal");
}

void add_show(servers::CommandLine *line, Options *options) {
  servers::Command command =
      line->command("show",
                    "Print the logs of all modules as one, in the order of time; this is what mlog "
                    "does without a command",
                    [options] { show(*options); });
  add_filters(&command, options);
  command.number("-n,--lines", &options->lines, "Only the last so many lines of everything",
                 {0, 1000000000});
  command.flag("-f,--follow", &options->follow,
               "Print the last 10 lines, or what --lines says, and go on with what is added");
  command.flag("-r,--reverse", &options->reverse, "The newest first");
  command.choice("-o,--output", &options->output, {"short", "full", "json", "raw"},
                 "How a line is printed");
  command.flag("--stats", &options->statistics,
               "Lines and bytes of every module and level, and lost lines, instead");
  command.flag("--no-pager", &options->no_pager, "Print to a terminal without a pager");
}

void add_readers(servers::CommandLine *line, Options *options) {
  const auto add_raw = [options](servers::Command *command) {
    add_filters(command, options);
    command->flag("--time", &options->wall_time,
                  "Time of day (UTC) instead of uptime, for lines of the running boot");
  };
  servers::Command command =
      line->command("cat", "Print log files one after another, the oldest lines first", [options] {
        options->output = "raw";
        cat(*options);
      });
  add_raw(&command);
  command = line->command("tail", "Print the last lines of log files", [options] {
    options->output = "raw";
    if (options->lines < 0) options->lines = 10;
    tail(*options);
  });
  add_raw(&command);
  command.flag("-f,--follow", &options->follow, "Go on with the lines that are added");
  command.number("-n,--lines", &options->lines, "How many lines of each file, 10 if not given",
                 {0, 1000000000});
  command =
      line->command("stat", "Size, turns and contents of log files", [options] { stat(*options); });
  add_files(&command, options);
}

void add_writers(servers::CommandLine *line, Options *options) {
  servers::Command command =
      line->command("print", "Write a line to the log, or each line of standard input",
                    [options] { print(*options); });
  command.option("-m,--module", &options->module, "Whose line it is, \"shell\" if not given");
  command.option("-p,--level", &options->level,
                 "NONE, FATL, ERRO, WARN or INFO, which it is if not given");
  command.arguments("text", &options->words, "The words of the line", Presence::kOptional);

  command = line->command("run", "Run a program and write what it prints to the log, by lines",
                          [options] { run(*options); });
  command.option("-m,--module", &options->module,
                 "Whose lines they are; the program's name if not given");
  command.option("-p,--level", &options->level, "Of its standard output, INFO if not given");
  command.option("--error-level", &options->error_level, "Of its standard error");
  command.arguments("command", &options->words, "-- and the program with its arguments",
                    Presence::kRequired);
}

void add_requests(servers::CommandLine *line, Options *options) {
  line->command("flush", "Have the server write everything to disk", [] { flush(); });

  servers::Command command =
      line->command("get", "Print the statistics text of a module", [options] { get(*options); });
  command.argument("module", &options->module, "its name", Presence::kRequired);

  command =
      line->command("set", "Set the statistics text of a module", [options] { set(*options); });
  command.argument("module", &options->module, "its name", Presence::kRequired);
  command.argument("text", &options->text, "the new text", Presence::kRequired);

  command = line->command("level", "Set the level of a module until the server ends, or print it",
                          [options] { level(*options); });
  command.argument("module", &options->module, "its name", Presence::kRequired);
  command.argument("level", &options->level,
                   "NONE, FATL, ERRO, WARN, INFO, or CONFIGURED for what the configuration says",
                   Presence::kOptional);

  command = line->command("modules", "The modules that the server has files of, with their counts",
                          [options] { modules(*options); });
  command.flag("--json", &options->json, "One JSON object for each module");
}

// `mlog` without a command is `mlog show`.
std::vector<char *> with_command(int argc, char **argv) {
  static std::string show = "show";
  std::vector<char *> arguments(argv, argv + argc);
  const std::string_view first = argc > 1 ? argv[1] : "";
  const bool is_complete = first == "--help" || first == "-h" || first == "--version" ||
                           std::find(kCommands.begin(), kCommands.end(), first) != kCommands.end();
  if (argc > 0 && !is_complete) arguments.insert(arguments.begin() + 1, show.data());
  arguments.push_back(nullptr);
  return arguments;
}

}  // namespace

namespace mlog {

void complain(const std::string &text, int status) {
  set_exit_status(status);
  std::string clean = text;
  servers::hide_controls(clean);
  fmt::print(stderr, "mlog: {}\n", clean);
}

int exit_status() {
  return g_status;
}

void set_exit_status(int status) {
  if (g_status == EXIT_SUCCESS) g_status = status;
}

}  // namespace mlog

int main(int argc, char **argv) try {
  servers::CommandLine line(
      "mlog", "Reads the log files of mlogserver, writes lines and talks to the server.");
  Options options;
  add_show(&line, &options);
  add_readers(&line, &options);
  add_writers(&line, &options);
  add_requests(&line, &options);

  std::vector<char *> arguments = with_command(argc, argv);
  const int count = static_cast<int>(arguments.size()) - 1;
  if (const std::optional<int> status = line.parse(count, arguments.data())) return *status;
  return exit_status();
} catch (const std::exception &error) {
  complain(error.what());
  return exit_status();
}
