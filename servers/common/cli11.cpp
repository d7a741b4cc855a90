// Everything that uses CLI11, which takes seconds to compile: command lines and files of sections.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "common/command_line.h"
#include "common/ini_file.h"

namespace servers {
namespace {

// Messages quote what the user typed; it must not control the terminal.
std::string printable(std::string text) {
  for (size_t i = 0; i < text.size(); ++i) {
    char &c = text[i];
    if ((static_cast<unsigned char>(c) < 0x20 && c != '\n') || c == 0x7f) c = '?';
    // The C1 controls, as UTF-8.
    if (c == '\xc2' && i + 1 < text.size() && (text[i + 1] & 0xe0) == 0x80) text.replace(i, 2, "?");
  }
  return text;
}

bool required(Presence presence) {
  return presence == Presence::kRequired;
}

// Whether somewhere there is such an option, with a value.
bool takes_value(CLI::App *app, const std::string &option) {
  if (const CLI::Option *known = app->get_option_no_throw(option))
    return known->get_type_size() > 0;
  const std::vector<CLI::App *> commands = app->get_subcommands({});
  return std::ranges::any_of(commands,
                             [&option](CLI::App *each) { return takes_value(each, option); });
}

// The words, last one first, as CLI11 wants them. It takes "--option=" for an option without a
// value: an empty value has to be a word of its own.
std::vector<std::string> words_backwards(CLI::App *app, int argc, char **argv) {
  std::vector<std::string> words;
  bool options = true;
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    options = options && word != "--";
    const std::string option = word.substr(0, word.size() - (word.ends_with('=') ? 1 : 0));
    const bool empty = options && option.size() < word.size() && option.starts_with("--") &&
                       takes_value(app, option);
    words.push_back(empty ? option : std::move(word));
    if (empty) words.emplace_back();
  }
  std::ranges::reverse(words);
  return words;
}

}  // namespace

void Command::option(const char *names, std::string *value, const char *help) {
  CLI::Option *option = app_->add_option(names, *value, help);
  if (!value->empty()) option->capture_default_str();
}

void Command::option(const char *names, std::vector<std::string> *values, const char *help) {
  CLI::Option *option = app_->add_option(names, *values, help)->allow_extra_args(false);
  if (!values->empty()) option->capture_default_str();
}

void Command::choice(const char *names, std::string *value,
                     std::initializer_list<const char *> choices, const char *help) {
  CLI::Option *option = app_->add_option(names, *value, help);
  option->transform(
      CLI::IsMember(std::vector<std::string>(choices.begin(), choices.end()), CLI::ignore_case));
  if (!value->empty()) option->capture_default_str();
}

void Command::flag(const char *names, bool *value, const char *help) {
  app_->add_flag(names, *value, help);
}

void Command::add_number(const char *names, int64_t value, std::function<void(int64_t)> store,
                         const char *help, Range range) {
  CLI::Option *option = app_->add_option_function<int64_t>(names, std::move(store), help);
  option->check(CLI::Range(range.least, range.most));
  if (value >= range.least && value <= range.most) option->default_str(std::to_string(value));
}

void Command::argument(const char *label, std::string *value, const char *help, Presence presence) {
  app_->add_option(label, *value, help)->required(required(presence));
}

void Command::arguments(const char *label, std::vector<std::string> *values, const char *help,
                        Presence presence) {
  app_->add_option(label, *values, help)->required(required(presence));
}

CommandLine::CommandLine(const char *program, const char *about)
    : Command(nullptr), owned_(std::make_unique<CLI::App>(about, program)) {
  app_ = owned_.get();
  app_->set_version_flag("--version", std::string(program) + " " MSGAPI_VERSION);
}

CommandLine::~CommandLine() = default;

Command CommandLine::command(const char *name, const char *help, std::function<void()> action) {
  CLI::App *command = app_->add_subcommand(name, help);
  command->callback(std::move(action));
  app_->require_subcommand(1);
  return Command(command);
}

std::optional<int> CommandLine::parse(int argc, char **argv) {
  try {
    app_->parse(words_backwards(app_, argc, argv));
    return std::nullopt;
  } catch (const CLI::Success &done) {
    return app_->exit(done);
  } catch (const CLI::ParseError &mistake) {
    return usage_error(mistake.what());
  } catch (const UsageError &mistake) {
    return usage_error(mistake.what());
  }
}

int CommandLine::usage_error(const std::string &mistake) const {
  if (tell_) {
    tell_(mistake);
    return kUsageStatus;
  }
  const char *program = app_->get_name().c_str();
  std::fprintf(stderr, "%s: %s\nRun '%s --help' for what it takes.\n", program,
               printable(mistake).c_str(), program);
  return kUsageStatus;
}

std::string joined(const std::vector<std::string> &words) {
  return CLI::detail::join(words, " ");
}

std::vector<IniItem> read_ini(std::istream &file) {
  // Names of items at which a section begins and ends.
  constexpr const char *kBegin = "++", *kEnd = "--";

  std::vector<IniItem> items;
  for (CLI::ConfigItem &item : CLI::ConfigINI().from_config(file)) {
    if (item.name == kEnd) continue;
    items.push_back({CLI::detail::join(item.parents, "."),
                     item.name == kBegin ? std::string() : std::move(item.name),
                     std::move(item.inputs)});
  }
  return items;
}

}  // namespace servers
