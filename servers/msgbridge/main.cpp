// msgbridge: joins the gateway's message bus to an MQTT broker. For the message server it is an
// application like any other. Events go up by the configuration's rules; requests that it allows
// come down.

#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "common/command_line.h"
#include "common/exit_status.h"
#include "msgapi/kit.h"
#include "msgbridge/bridge.h"
#include "msgbridge/guard.h"
#include "msgbridge/identity.h"

namespace {

using namespace msgbridge;
using servers::ExitStatus;

std::unique_ptr<Bridge> g_bridge;

uint32_t take_event(uint32_t type, const void *data, uint32_t length) {
  guarded("An event that is lost", [=] {
    g_bridge->take_event(type, {static_cast<const char *>(data), length});
  });
  return 0;
}

uint32_t subscribe() {
  if (!g_bridge->upward().wants_any()) return ORP_OK;
  std::vector<uint32_t> types = g_bridge->upward().types();
  if (types.empty()) types.push_back(ORP_MSG_ALL_EVENTS);
  for (const uint32_t type : types) {
    const uint32_t status = msgkit_subscribe(type, take_event);
    if (status != ORP_OK) return status;
  }
  return ORP_OK;
}

uint32_t start() {
  uint32_t status = ORP_ERR_MEMORY;
  guarded("The start", [&status] {
    status = subscribe();
    if (status == ORP_OK) g_bridge->start();
  });
  return status;
}

void changed(uint32_t server, uint32_t connected) {
  if (server != MSGKIT_MESSAGE_SERVER) return;
  guarded("The connection to the message server",
          [connected] { g_bridge->bus_changed(connected != 0); });
}

void stop() {
  guarded("The end", [] { g_bridge->stop(); });
}

// Throws catalogue::Problem.
Config load(const std::string &path, const catalogue::Catalogue &types) {
  try {
    return read_config(catalogue::file_contents(path), types);
  } catch (const catalogue::JsonError &error) {
    throw catalogue::problem_in(path, error);
  } catch (const catalogue::Unreadable &error) {
    throw catalogue::Problem{catalogue::shown(path), 0, error.what()};
  }
}

int run(const std::string &path, bool check) {
  catalogue::Catalogue types;
  for (const catalogue::Problem &problem : types.load()) {
    std::fprintf(stderr, "msgbridge: %s\n", problem.text().c_str());
  }
  static Config config;
  config = load(path, types);
  const std::string gateway = gateway_name(config);
  if (check) {
    std::printf("%s: good, as %s/%s\n", path.c_str(), config.prefix.c_str(),
                topic_level(gateway).c_str());
    return EXIT_SUCCESS;
  }
  // Only this user may read the events that wait.
  ::umask(S_IRWXG | S_IRWXO);
  // The threads of attempts need no arenas of their own (mallopt(3)).
  ::mallopt(M_ARENA_MAX, 1);
  g_bridge = std::make_unique<Bridge>(&config, &types, gateway);
  const MSGKIT_DAEMON_ST daemon = {kName, start, changed, nullptr, stop};
  const int status = msgkit_run_daemon(&daemon);
  // No destructors run: a thread may still wait for the system and use the libraries.
  std::fflush(nullptr);
  ::_exit(status);
}

}  // namespace

int main(int argc, char **argv) {
  servers::CommandLine line("msgbridge", "Joins the message bus to an MQTT broker.");
  std::string path = kConfigFile;
  line.option("--config", &path, "Configuration file");
  bool check = false;
  line.flag("--check", &check, "Say whether the configuration is good, and end");
  if (const std::optional<int> status = line.parse(argc, argv)) return *status;
  try {
    return run(path, check);
  } catch (const catalogue::Problem &problem) {
    std::fprintf(stderr, "msgbridge: %s\n", problem.text().c_str());
    return static_cast<int>(ExitStatus::kBadBody);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "msgbridge: %s\n", error.what());
    return static_cast<int>(ExitStatus::kAnswerError);
  }
}
