// dns_relay: a small caching DNS relay on the event loop, with the library's packet functions.
//
// It answers from a hosts file, then from what it has been answered before, aged by the time since,
// and passes everything else on to upstream servers, by UDP and, for who asked over TCP and when
// the reply did not fit, over TCP. Without EDNS: a reply that does not fit comes marked as cut
// short.

#include <fmt/core.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>

#include "common/command_line.h"
#include "relay.h"

namespace {

using dns_relay::Relay;

int signal_descriptor() {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) ::sigaddset(&set, signal);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  return ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

void on_signal(OrpUvIo *watcher, uint32_t) {
  signalfd_siginfo signal;
  if (::read(watcher->fd, &signal, sizeof signal) != sizeof signal) return;
  if (signal.ssi_signo != SIGHUP) {
    OrpUvLoopStop(OrpUvLoopGetDefault());
    return;
  }
  try {
    reinterpret_cast<Relay *>(watcher->head.data)->reload_hosts();
  } catch (const std::exception &error) {
    fmt::print(stderr, "dns_relay: {}; the hosts stay as they were\n", error.what());
  }
}

void run(const dns_relay::Settings &settings) {
  Relay relay(settings);
  dns_relay::watch(signal_descriptor(), on_signal, &relay);
  fmt::print("dns_relay: listening on {}\n", settings.listen);
  std::fflush(stdout);
  OrpUvLoopRun(nullptr, 0);
  ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
}

}  // namespace

int main(int argc, char **argv) {
  servers::CommandLine line(
      "dns_relay",
      "A caching DNS relay. SIGHUP reads the hosts file again, SIGINT and SIGTERM end it.");
  dns_relay::Settings settings;
  line.option("--listen", &settings.listen, "Address and port to serve");
  line.option("--upstream", &settings.upstreams, "Server (ADDRESS or ADDRESS#PORT), repeatable");
  line.option("--hosts", &settings.hosts, "File of names and addresses, as /etc/hosts");
  line.number("--hosts-ttl", &settings.hosts_ttl_s, "TTL of answers from it, in seconds");
  line.number("--timeout", &settings.timeout_ms, "Milliseconds for each server to answer",
              {10, 60000});
  line.number("--cache", &settings.cache_size, "Names to remember");
  if (const std::optional<int> status = line.parse(argc, argv)) return *status;

  try {
    run(settings);
    return EXIT_SUCCESS;
  } catch (const std::exception &error) {
    fmt::print(stderr, "dns_relay: {}\n", error.what());
    return EXIT_FAILURE;
  }
}
