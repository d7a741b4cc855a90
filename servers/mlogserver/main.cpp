// mlogserver: the log server "/var/mlog/mlogServer". Keeps the lines of every module in a ring file
// of its own, personal data masked, and the statistics texts of the modules in memory.

#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>

#include "common/command_line.h"
#include "common/confine.h"
#include "common/event_loop.h"
#include "common/log_line.h"
#include "config.h"
#include "ring_store.h"
#include "say.h"
#include "server.h"

namespace {

using namespace mlogserver;

struct Options {
  std::string config_file;
  std::string directory;
};

constexpr const char *kConfigFile = "/etc/mlogserver.conf";

// The defaults hold when no file was named and there is none at the usual place.
Config load_config(const Options &options) {
  Config config;
  if (!options.config_file.empty()) {
    config = read_config(options.config_file);
  } else if (std::filesystem::exists(kConfigFile)) {
    config = read_config(kConfigFile);
  }
  if (!options.directory.empty()) config.directory = config.share_directory = options.directory;
  return config;
}

// Does what a signal asks for; when that fails, the server says so and goes on.
template <typename Function>
void attempt(Function function) noexcept {
  try {
    function();
  } catch (const std::exception &error) {
    say("{}; going on as before", error.what());
  }
}

void reload(const Options &options, RingStore *store) {
  store->reconfigure(load_config(options));
  servers::log_line("configuration read, files are in {}", store->directory());
}

void print_counters(const Server &server, const RingStore &store) {
  const Counters &counters = server.counters();
  servers::log_line("lines {} requests {} malformed {} unanswered {} refused {} given up {}",
                    counters.lines, counters.requests, counters.malformed, counters.unanswered,
                    counters.stats_refused, counters.given_up + store.given_up());
  for (const auto &[module, count] : store.counters()) {
    servers::log_line("module {}: kept {} below level {} dropped {} lost {}", module, count.kept,
                      count.below_level, count.dropped, count.lost);
  }
}

void run(const Options &options) {
  servers::EventLoop loop;
  RingStore store(load_config(options));
  Server server(&loop, &store);

  loop.add(server.fd(), EPOLLIN, &server);
  loop.on_signal(SIGHUP, [&] {
    server.drain();  // lines sent before the signal are kept by the old configuration
    attempt([&] { reload(options, &store); });
  });
  loop.on_signal(SIGUSR1, [&] { attempt([&] { print_counters(server, store); }); });
  for (const int signal : {SIGTERM, SIGINT}) loop.on_signal(signal, [&] { loop.stop(); });
  servers::log_line("ready, files are in {}", store.directory());
  loop.run();

  // What the socket has accepted is kept.
  server.drain();
  store.tell_dropped(true);
  store.sync();
  attempt([&] { print_counters(server, store); });
}

}  // namespace

int main(int argc, char **argv) try {
  servers::CommandLine line(
      "mlogserver", "The log server: keeps every module's lines in a ring file of its own.");
  Options options;
  line.option("--config", &options.config_file,
              "Configuration file (/etc/mlogserver.conf if it is there)");
  line.option("--directory", &options.directory,
              "Where the log files are kept, whatever the configuration says");
  bool confined = false;
  line.flag("--seccomp", &confined, "Give up rights that the server does not need");
  if (const std::optional<int> status = line.parse(argc, argv)) return *status;

  servers::set_log_name("mlogserver");
  ::umask(0027);
  std::signal(SIGPIPE, SIG_IGN);  // the reader of standard error may be gone
  if (confined) servers::confine(servers::Programs::kNone);
  run(options);
  return EXIT_SUCCESS;
} catch (const std::exception &error) {
  servers::log_line("{}", error.what());
  return EXIT_FAILURE;
}
