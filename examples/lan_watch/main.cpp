// lan_watch: shows who is on which port of the gateway's bridges, as a table that refreshes.
//
// A daemon on the library's event loop with three watchers: a timer draws the table, a netlink
// socket tells of hosts that come and go, and a signal descriptor ends the program. Everything in
// the table comes from the library's bridge, interface and MAC functions.

#include <fmt/format.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/command_line.h"
#include "msgapi/bridge.h"
#include "msgapi/loop.h"
#include "msgapi/mac.h"
#include "msgapi/netlink.h"
#include "neighbours.h"
#include "orputil.h"

namespace {

using namespace lan_watch;

constexpr uint32_t kMaxPorts = 64;

struct Settings {
  uint32_t interval_ms = 2000;
  uint32_t count = 0;  // tables to draw; 0: until a signal
  bool mask = false;
};

struct Traffic {
  uint32_t rx_bytes;
  uint32_t tx_bytes;
};

class LanWatch {
 public:
  explicit LanWatch(const Settings &settings)
      : settings_(settings), on_terminal_(::isatty(STDOUT_FILENO) == 1) {}

  Neighbours &neighbours() { return neighbours_; }

  void draw() {
    std::string table;
    for (const std::string &bridge : bridges()) table += bridge_lines(bridge);
    if (table.empty()) table = "no bridges\n";

    // Home and clear, so that the table stays in place.
    std::fputs(on_terminal_ ? "\033[H\033[2J" : "", stdout);
    std::fputs((table + "\n").c_str(), stdout);
    std::fflush(stdout);
    if (settings_.count != 0 && ++drawn_ == settings_.count) OrpUvLoopStop(OrpUvLoopGetDefault());
  }

 private:
  static std::vector<std::string> bridges() {
    char names[1024];
    ORP_UTIL_GetBridgeAllNames(names, sizeof names);
    std::vector<std::string> result;
    std::istringstream list(names);
    for (std::string name; std::getline(list, name, ',');) result.push_back(name);
    return result;
  }

  static std::vector<std::string> ports(const std::string &bridge) {
    char names[kMaxPorts][ORP_IF_NAME_SIZE];
    std::vector<std::string> result;
    if (ORP_UTIL_GetAllInterfaceOnBr(bridge.c_str(), kMaxPorts, names) != 0) return result;
    for (uint32_t i = 0; i < kMaxPorts && names[i][0] != '\0'; ++i) result.emplace_back(names[i]);
    return result;
  }

  // "<shown MAC> <addresses>" of every host on `bridge`, by interface.
  std::multimap<std::string, std::string> hosts_on(const std::string &bridge) const {
    std::multimap<std::string, std::string> result;
    for (const auto &[mac, addresses] : neighbours_.hosts()) {
      // The query succeeds without filling the record when there is nothing to ask.
      ORP_UTIL_BR_FDB_ST place{};
      if (ORP_UTIL_GetBrFdbInfoByMacSpecBr(mac.c_str(), &place, bridge.c_str()) != 0) continue;
      if (place.aucIfName[0] == '\0') continue;
      result.emplace(place.aucIfName, fmt::format("{}  {}", shown(mac), fmt::join(addresses, " ")));
    }
    return result;
  }

  std::string shown(const std::string &mac) const {
    char masked[ORP_MAC_TEXT_SIZE];
    const bool ok = ORP_UTIL_GetSecureMacAddress(mac.c_str(), masked, sizeof masked) == 0;
    return settings_.mask && ok ? masked : mac;
  }

  std::string bridge_lines(const std::string &bridge) {
    char address[64] = "no link-local address";
    ORP_UTIL_GetIpv6LinkAddress(bridge.c_str(), address, sizeof address);
    std::string lines = fmt::format("{}  {}\n", bridge, address);
    lines += fmt::format("  {:<15} {:>10} {:>10} {:>9} {:>9}  {}\n", "PORT", "RECEIVED", "SENT",
                         "RECV/S", "SENT/S", "HOST");

    const auto hosts = hosts_on(bridge);
    for (const std::string &port : ports(bridge)) {
      lines += port_line(port);
      const auto [first, last] = hosts.equal_range(port);
      const char *indent = "";
      for (auto host = first; host != last; ++host) {
        lines += fmt::format("{:<{}}  {}\n", "", *indent == '\0' ? 0 : 57, host->second);
        indent = " ";
      }
      if (first == last) lines += '\n';
    }
    return lines;
  }

  // The port with its counters, and what they gained since the last table.
  std::string port_line(const std::string &port) {
    ORP_UTIL_DEV_STATS_ST stats{};
    ORP_UTIL_GetDevStats(port.c_str(), &stats);
    const Traffic now{stats.rx_bytes, stats.tx_bytes};
    const Traffic before = traffic_.try_emplace(port, now).first->second;
    traffic_[port] = now;

    // Unsigned differences stay right when a counter wraps.
    const auto rate = [&](uint32_t gained) {
      return uint64_t{gained} * 1000 / settings_.interval_ms;
    };
    return fmt::format("  {:<15} {:>10} {:>10} {:>9} {:>9}", port, now.rx_bytes, now.tx_bytes,
                       rate(now.rx_bytes - before.rx_bytes), rate(now.tx_bytes - before.tx_bytes));
  }

  const Settings settings_;
  const bool on_terminal_;
  uint32_t drawn_ = 0;
  Neighbours neighbours_;
  std::map<std::string, Traffic> traffic_;
};

// Lets the loop watch `fd`, which becomes the loop's.
void watch(int fd, ORP_UV_IO_PROC callback, ORP_WORD data) {
  auto *watcher = static_cast<OrpUvIo *>(std::malloc(sizeof(OrpUvIo)));
  if (watcher == nullptr || fd < 0 || OrpUvIoInit(nullptr, watcher, fd, callback) != ORP_OK ||
      OrpUvIoStart(watcher, ORP_UV_READABLE) != ORP_OK) {
    throw std::runtime_error("cannot watch a descriptor");
  }
  watcher->head.data = data;
}

// A descriptor that is readable once one of these signals came.
int signal_descriptor(std::initializer_list<int> signals) {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : signals) ::sigaddset(&set, signal);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  return ::signalfd(-1, &set, SFD_CLOEXEC);
}

// The library asks the program brctl about bridges, and tells its absence as "no bridges".
void require_brctl() {
  char path[PATH_MAX];
  if (ORP_UTIL_GetExeFullPath("brctl", path, sizeof path) == 0) return;
  throw std::runtime_error(
      "bridges cannot be listed: the program brctl is not in PATH; install bridge-utils");
}

void run(const Settings &settings) {
  require_brctl();
  LanWatch lan(settings);
  const auto data = reinterpret_cast<ORP_WORD>(&lan);

  watch(
      signal_descriptor({SIGTERM, SIGINT}),
      [](OrpUvIo *, uint32_t) { OrpUvLoopStop(OrpUvLoopGetDefault()); }, 0);
  watch(
      ::dup(lan.neighbours().fd()),
      [](OrpUvIo *watcher, uint32_t) {
        auto *self = reinterpret_cast<LanWatch *>(watcher->head.data);
        self->neighbours().update();
      },
      data);
  ORP_TIMER_AddWithName(
      settings.interval_ms, 0, [](ORP_WORD self) { reinterpret_cast<LanWatch *>(self)->draw(); },
      "lan_watch", data);
  lan.draw();
  OrpUvLoopRun(nullptr, 0);
  ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
}

}  // namespace

int main(int argc, char **argv) {
  servers::CommandLine line("lan_watch", "Shows who is on which port of this machine's bridges.");
  Settings settings;
  line.number("--interval", &settings.interval_ms, "Milliseconds between two tables",
              {10, 3600000});
  line.number("--count", &settings.count, "Tables to print (0: until SIGINT or SIGTERM)");
  line.flag("--mask", &settings.mask, "Mask MAC addresses");
  if (const std::optional<int> status = line.parse(argc, argv)) return *status;

  try {
    run(settings);
    return EXIT_SUCCESS;
  } catch (const std::exception &error) {
    fmt::print(stderr, "lan_watch: {}\n", error.what());
    return EXIT_FAILURE;
  }
}
