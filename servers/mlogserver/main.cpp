// mlogserver: the log server "/var/mlog/mlogServer". Keeps the lines of every module in a file of
// its own and the statistics texts of the modules in memory.

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <exception>
#include <string>

#include "common/event_loop.h"
#include "common/log_line.h"
#include "server.h"
#include "store.h"

namespace {

using namespace mlogserver;

void print_counters(const Counters &counters) {
  servers::log_line("lines {} requests {} malformed {} unanswered {} refused {}", counters.lines,
                    counters.requests, counters.malformed, counters.unanswered,
                    counters.stats_refused);
}

void run(const std::string &directory) {
  servers::EventLoop loop;
  Store store(directory);
  Server server(&store);

  loop.add(server.fd(), EPOLLIN, &server);
  loop.on_signal(SIGUSR1, [&] { print_counters(server.counters()); });
  for (const int signal : {SIGTERM, SIGINT}) loop.on_signal(signal, [&] { loop.stop(); });
  servers::log_line("ready");
  loop.run();

  // What clients were told is accepted is kept.
  server.drain();
  store.sync();
  print_counters(server.counters());
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("The log server: keeps every module's lines in a file of its own.");
  std::string directory = "/var/log/mlog";
  app.add_option("--directory", directory, "Where the log files are kept")->capture_default_str();
  CLI11_PARSE(app, argc, argv);

  servers::set_log_name("mlogserver");
  ::umask(0027);
  try {
    run(directory);
    return EXIT_SUCCESS;
  } catch (const std::exception &error) {
    servers::log_line("{}", error.what());
    return EXIT_FAILURE;
  }
}
