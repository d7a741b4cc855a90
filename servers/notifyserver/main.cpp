// notifyserver: the notify server "notifyserver" in "/var/run/notify". Passes notifications and
// synchronous requests between the modules that are registered with it.

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <exception>
#include <string>

#include "common/event_loop.h"
#include "common/log_line.h"
#include "notifyserver/server.h"

namespace {

// Room for the longest message and as much again.
constexpr size_t kDefaultQueue = size_t{2} * (ORP_NOTIFYCLT_MAX_DATA + 4096);

void run(const std::string &path, size_t queue_limit) {
  servers::EventLoop loop;
  notifyserver::Server server(&loop, path, queue_limit);

  loop.on_signal(SIGUSR1, [&] { server.log_statistics(); });
  for (const int signal : {SIGTERM, SIGINT}) loop.on_signal(signal, [&] { loop.stop(); });
  servers::log_line("ready");
  loop.run();

  // Once more, for what was sent just before.
  loop.turn(0);
  server.finish();
  server.log_statistics();
}

}  // namespace

int main(int argc, char **argv) try {
  CLI::App app("The notify server: passes notifications between the modules of the device.");
  std::string path = ORP_NOTIFYCLT_DIRECTORY "/" ORP_NOTIFYCLT_SERVER_NAME;
  app.add_option("--socket", path, "Where clients connect")->capture_default_str();
  size_t queue_limit = kDefaultQueue;
  app.add_option("--queue", queue_limit,
                 "Bytes that may wait for a client that does not read; more is lost and counted")
      ->capture_default_str();
  CLI11_PARSE(app, argc, argv);

  servers::set_log_name("notifyserver");
  // Every application puts its own socket there, too.
  ::mkdir(ORP_NOTIFYCLT_DIRECTORY, 0775);
  run(path, queue_limit);
  return EXIT_SUCCESS;
} catch (const std::exception &error) {
  servers::log_line("{}", error.what());
  return EXIT_FAILURE;
}
