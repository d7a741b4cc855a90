// notifyserver: the notify server "notifyserver" in "/var/run/notify". Passes notifications and
// synchronous requests between the modules that are registered with it.

#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "common/command_line.h"
#include "common/confine.h"
#include "common/event_loop.h"
#include "common/listen.h"
#include "common/log_line.h"
#include "common/octal_mode.h"
#include "notifyserver/server.h"

namespace {

// "MODULE=USER", by names or numbers. Throws servers::UsageError.
void add_owner(const std::string &text, notifyserver::Rules *rules) {
  const size_t equals = text.find('=');
  const std::string module = text.substr(0, equals);
  const std::string user = equals == std::string::npos ? "" : text.substr(equals + 1);
  const auto number_of = [](const std::string &digits) {
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    const bool whole = error == std::errc() && end == digits.data() + digits.size();
    return whole ? std::optional(number) : std::nullopt;
  };
  std::optional<uint32_t> id = number_of(module);
  for (uint32_t each = 1; !id && each < ORP_NOTIFYCLT_MODULES; ++each) {
    const char *name = ORP_NOTIFYCLT_GetNameByMID(each);
    if (name != nullptr && module == name) id = each;
  }
  if (!id || *id == 0 || *id >= ORP_NOTIFYCLT_MODULES) {
    throw servers::UsageError("--own " + text + ": there is no such module");
  }
  std::optional<uint32_t> uid = number_of(user);
  if (const passwd *entry = uid ? nullptr : ::getpwnam(user.c_str())) uid = entry->pw_uid;
  if (!uid) throw servers::UsageError("--own " + text + ": there is no such user");
  rules->owners[*id].insert(*uid);
}

mode_t mode_of(const std::string &octal) {
  const auto mode = servers::octal_mode(octal);
  if (!mode) throw servers::UsageError("--mode " + octal + " is no octal mode up to 0777");
  return *mode;
}

void run(const std::string &path, const notifyserver::Limits &limits,
         const notifyserver::Rules &rules) {
  servers::EventLoop loop;
  notifyserver::Server server(&loop, path, limits, rules);

  std::signal(SIGPIPE, SIG_IGN);
  loop.on_signal(SIGHUP, [] { servers::log_line("SIGHUP: there is no file to read anew"); });
  loop.on_signal(SIGUSR1, [&] { server.log_statistics(); });
  for (const int signal : {SIGTERM, SIGINT}) loop.on_signal(signal, [&] { loop.stop(); });
  servers::log_line("ready");
  loop.run();

  // One more turn, for what was sent just before.
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
  line.number("--user-connections", &limits.connections, "Connections that one user may have",
              {1, 1 << 30});
  std::string mode = "0666";
  line.option("--mode", &mode, "Permissions of the socket, octal");
  std::vector<std::string> owners;
  line.option("--own", &owners,
              "MODULE=USER: only this user and root may register as the module; repeatable. "
              "Messages then carry the module of their sender");
  bool log_server = false;
  line.flag("--log-server", &log_server,
            "Log to the log server as module notifyserver; without it, to standard error");
  bool confined = false;
  line.flag("--seccomp", &confined, "Give up rights that the server does not need");
  if (const std::optional<int> status = line.parse(argc, argv)) return *status;

  notifyserver::Rules rules;
  try {
    rules.mode = mode_of(mode);
    for (const std::string &owner : owners) add_owner(owner, &rules);
  } catch (const servers::UsageError &mistake) {
    return line.usage_error(mistake.what());
  }

  servers::set_log_name("notifyserver");
  if (log_server) servers::send_log_as("notifyserver");
  if (confined) servers::confine(servers::Programs::kNone);
  // Every application puts its own socket there, too.
  ::mkdir(ORP_NOTIFYCLT_DIRECTORY, 0775);
  // No user gets all of the server's descriptors.
  limits.connections = std::min(limits.connections, servers::raise_descriptor_limit() / 2);
  run(path, limits, rules);
  return EXIT_SUCCESS;
} catch (const std::exception &error) {
  servers::log_line("{}", error.what());
  return EXIT_FAILURE;
}
