// notifyserver: the notify server "notifyserver" in "/var/run/notify". Passes notifications and
// synchronous requests between the modules that are registered with it.

#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>

#include "common/command_line.h"
#include "common/confine.h"
#include "common/event_loop.h"
#include "common/log_line.h"
#include "notifyserver/server.h"

namespace {

void run(const std::string &path, const notifyserver::Limits &limits) {
  servers::EventLoop loop;
  notifyserver::Server server(&loop, path, limits);

  std::signal(SIGPIPE, SIG_IGN);
  loop.on_signal(SIGHUP, [] { servers::log_line("SIGHUP: there is no file to read anew"); });
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
  servers::CommandLine line(
      "notifyserver", "The notify server: passes notifications between the modules of the device.");
  std::string path = ORP_NOTIFYCLT_DIRECTORY "/" ORP_NOTIFYCLT_SERVER_NAME;
  line.option("--socket", &path, "Where clients connect");
  notifyserver::Limits limits;
  line.number("--queue", &limits.queue,
              "Bytes that may wait for a client that does not read; more is lost and counted");
  line.number("--unfinished", &limits.unfinished,
              "Bytes that messages of one user's clients may take before they have arrived whole, "
              "and half of what all may; more is lost and counted");
  bool log_server = false;
  line.flag(
      "--log-server", &log_server,
      "Log to the log server as module notifyserver, to standard error while it is not there");
  bool confined = false;
  line.flag("--seccomp", &confined, "Give up rights that the server does not need");
  if (const std::optional<int> status = line.parse(argc, argv)) return *status;

  servers::set_log_name("notifyserver");
  if (log_server) servers::send_log_as("notifyserver");
  if (confined) servers::confine(servers::Programs::kNone);
  // Every application puts its own socket there, too.
  ::mkdir(ORP_NOTIFYCLT_DIRECTORY, 0775);
  run(path, limits);
  return EXIT_SUCCESS;
} catch (const std::exception &error) {
  servers::log_line("{}", error.what());
  return EXIT_FAILURE;
}
