// The counters of one interface: by the library over routing netlink (rtnetlink(7)) and from
// /proc/net/dev, beside libnl. The argument is the number of interfaces; the last one is read,
// which /proc/net/dev lists behind all others. Needs a network namespace of its own: ./dev bench
// gives it one.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include "msgapi/bridge.h"
#include "msgapi/netlink.h"

#ifdef HAVE_LIBNL_ROUTE_3_0
#include <netlink/route/link.h>
#include <netlink/socket.h>
#endif

namespace {

int g_interfaces;  // beside "lo"

std::string interface_name(int number) {
  return "bench" + std::to_string(number);
}

bool ip_link(const std::string &what) {
  return std::system(("ip link " + what).c_str()) == 0;
}

// Makes as many interfaces as the benchmark wants. False without the right to.
bool prepare(benchmark::State &state) {
  bool done = true;
  while (done && g_interfaces < state.range(0)) {
    done = ip_link("add " + interface_name(g_interfaces++) + " type bridge");
  }
  while (done && g_interfaces > state.range(0)) {
    done = ip_link("del " + interface_name(--g_interfaces));
  }
  if (!done) state.SkipWithError("cannot change the interfaces");
  return done;
}

void get_dev_stats(benchmark::State &state) {
  if (!prepare(state)) return;
  const std::string name = interface_name(g_interfaces - 1);
  for (auto _ : state) {
    ORP_UTIL_DEV_STATS_ST stats;
    ORP_UTIL_GetDevStats(name.c_str(), &stats);
    benchmark::DoNotOptimize(stats);
  }
}
BENCHMARK(get_dev_stats)->Arg(4)->Arg(64);

void get_ifc_stat_info(benchmark::State &state) {
  if (!prepare(state)) return;
  const std::string name = interface_name(g_interfaces - 1);
  for (auto _ : state) {
    ORP_UTIL_IFC_STAT_ST counters;
    ORP_UTIL_GetIfcStatInfoEx(name.c_str(), &counters);
    benchmark::DoNotOptimize(counters);
  }
}
BENCHMARK(get_ifc_stat_info)->Arg(4)->Arg(64);

#ifdef HAVE_LIBNL_ROUTE_3_0
void libnl(benchmark::State &state) {
  if (!prepare(state)) return;
  const std::string name = interface_name(g_interfaces - 1);
  nl_sock *socket = nl_socket_alloc();
  if (nl_connect(socket, NETLINK_ROUTE) != 0) state.SkipWithError("cannot connect");
  for (auto _ : state) {
    rtnl_link *link = nullptr;
    if (rtnl_link_get_kernel(socket, 0, name.c_str(), &link) != 0) {
      state.SkipWithError("no answer");
      break;
    }
    benchmark::DoNotOptimize(rtnl_link_get_stat(link, RTNL_LINK_RX_BYTES));
    rtnl_link_put(link);
  }
  nl_socket_free(socket);
}
BENCHMARK(libnl)->Arg(4)->Arg(64);
#endif

}  // namespace

BENCHMARK_MAIN();
