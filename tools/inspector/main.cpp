// msginspect: the message bus as a live page.

#include <arpa/inet.h>
#include <fmt/core.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <charconv>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/command_line.h"
#include "common/exit_status.h"
#include "common/listen.h"
#include "common/printable.h"
#include "inspector/answers.h"
#include "inspector/bus.h"
#include "inspector/feed.h"
#include "inspector/token.h"
#include "inspector/web.h"
#include "mlog/directory.h"
#include "msgctl/context.h"

namespace {

using inspector::Bus;
using servers::ExitStatus;
using servers::Failure;
using servers::UniqueFd;

constexpr std::string_view kInherited = "fd:";

struct Options {
  std::string listen = "127.0.0.1:8970";
  std::string file;
  std::string logs;
  std::string token_file = inspector::kTokenPath;
  bool no_mask = false;
  bool allow_send = false;
};

// "fd:3": a listening socket that the parent process has opened.
UniqueFd inherited(std::string_view number) {
  int fd = -1;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), fd);
  int listens = 0;
  socklen_t size = sizeof listens;
  if (error != std::errc() || end != number.data() + number.size() || fd < 0 ||
      ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) != 0 || listens == 0) {
    throw servers::UsageError(fmt::format("--listen fd:{}: this is no listening socket", number));
  }
  return UniqueFd(fd);
}

UniqueFd listen(const std::string &where) {
  if (where.starts_with(kInherited)) return inherited(std::string_view(where).substr(3));
  // A port alone listens for this machine only.
  return servers::listen_tcp(where.starts_with(':') ? "127.0.0.1" + where : where);
}

struct Place {
  std::string address;  // as in a URL: IPv6 in brackets
  uint16_t port = 0;
  bool loopback = false;
};

Place place_of(int fd) {
  sockaddr_storage storage{};
  socklen_t size = sizeof storage;
  ::getsockname(fd, reinterpret_cast<sockaddr *>(&storage), &size);
  char text[INET6_ADDRSTRLEN] = "";
  if (storage.ss_family == AF_INET) {
    const auto &ip4 = reinterpret_cast<const sockaddr_in &>(storage);
    ::inet_ntop(AF_INET, &ip4.sin_addr, text, sizeof text);
    return {text, ntohs(ip4.sin_port), (ntohl(ip4.sin_addr.s_addr) >> 24) == 127};
  }
  if (storage.ss_family == AF_INET6) {
    const auto &ip6 = reinterpret_cast<const sockaddr_in6 &>(storage);
    ::inet_ntop(AF_INET6, &ip6.sin6_addr, text, sizeof text);
    return {fmt::format("[{}]", text), ntohs(ip6.sin6_port), IN6_IS_ADDR_LOOPBACK(&ip6.sin6_addr)};
  }
  throw servers::UsageError("--listen: this is no socket of the Internet");
}

// Names of machines are not served, because somebody else's page could make a name of its own
// resolve to this address (DNS rebinding).
std::vector<std::string> hosts_of(const Place &place) {
  std::vector<std::string> hosts{fmt::format("{}:{}", place.address, place.port)};
  if (place.loopback) hosts.push_back(fmt::format("localhost:{}", place.port));
  return hosts;
}

void wait_for_end() {
  sigset_t ends;
  ::sigemptyset(&ends);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&ends, signal);
  int signal = 0;
  ::sigwait(&ends, &signal);
}

// Called before the first thread starts, because threads inherit the mask.
void hold_signals() {
  std::signal(SIGPIPE, SIG_IGN);
  sigset_t ends;
  ::sigemptyset(&ends);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&ends, signal);
  ::pthread_sigmask(SIG_BLOCK, &ends, nullptr);
}

inspector::Settings settings_of(const Options &options) {
  inspector::Settings settings;
  settings.log_directory = options.logs.empty() ? mlog::server_directory() : options.logs;
  settings.masked = !options.no_mask;
  settings.past = !options.file.empty();
  settings.allow_send = options.allow_send && !settings.past;
  return settings;
}

void inspect(const Options &options, const msgctl::Context &context) {
  UniqueFd listener = listen(options.listen);
  const Place place = place_of(listener.get());
  const std::vector<std::string> hosts = hosts_of(place);
  std::string warning;
  const std::string token = inspector::token_of(options.token_file, &warning);
  if (!warning.empty()) std::fprintf(stderr, "msginspect: %s\n", warning.c_str());

  hold_signals();
  // On a busy machine the bus comes first.
  ::setpriority(PRIO_PROCESS, 0, 5);
  Bus bus(context.catalogue, !options.no_mask);
  std::optional<inspector::Feed> feed;
  if (options.file.empty()) {
    feed.emplace(&bus, flight::kPath);
  } else {
    inspector::load_past(&bus, options.file);
  }
  const inspector::Answers answers(&bus, &context, settings_of(options));
  const inspector::Web web(std::move(listener), token, hosts, std::cref(answers));
  std::printf("http://%s/%s/\n", hosts[0].c_str(), token.c_str());
  std::fflush(stdout);
  wait_for_end();
  bus.end();
}

int fail(ExitStatus status, const char *what) {
  std::fprintf(stderr, "msginspect: %s\n", servers::printable(what).c_str());
  return static_cast<int>(status);
}

}  // namespace

int main(int argc, char **argv) {
  Options options;
  servers::CommandLine line("msginspect",
                            "Shows the message bus in a browser: who talks to whom, each message, "
                            "how long it takes. Prints the address to open.");
  line.option("--listen", &options.listen, "[ADDRESS]:PORT, or fd:N for a socket that is open");
  line.option("-f,--file", &options.file, "Show a capture (pcapng) or a flight file, not the bus");
  line.flag("--no-mask", &options.no_mask, "Show personal data");
  line.flag("--allow-send", &options.allow_send, "The page may send messages");
  line.option("--logs", &options.logs, "Where the module logs are (default: as mlogserver has it)");
  line.option("--token-file", &options.token_file,
              "Keeps the secret of the address from one start to the next; \"\" for a new one");
  if (const std::optional<int> status = line.parse(argc, argv)) return *status;
  try {
    msgctl::Context context;
    for (const catalogue::Problem &problem : context.catalogue.load()) {
      std::fprintf(stderr, "msginspect: %s\n", problem.text().c_str());
    }
    inspect(options, context);
    return 0;
  } catch (const servers::UsageError &error) {
    return line.usage_error(error.what());
  } catch (const Failure &failure) {
    return fail(failure.status(), failure.what());
  } catch (const std::exception &error) {
    return fail(ExitStatus::kAnswerError, error.what());
  }
}
