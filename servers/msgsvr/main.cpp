// msgsvr: the message server through which all application processes talk to each other.

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>
#include <utility>
#include <vector>

#include "common/command_line.h"
#include "common/confine.h"
#include "common/event_loop.h"
#include "common/listen.h"
#include "common/log_line.h"
#include "common/octal_mode.h"
#include "flight/recorder.h"
#include "msgsvr/directories.h"
#include "msgsvr/left_bodies.h"
#include "msgsvr/options.h"
#include "msgsvr/server.h"
#include "msgsvr/services.h"
#include "policy/policy.h"

namespace {

using msgsvr::Options;
using servers::log_line;

// The smallest queue, in frames of the longest kind that is kept until it is whole.
constexpr size_t kQueuePerFrame = 2;

void add_options(servers::Command *command, Options *options, std::vector<std::string> *tcp_from) {
  command->option("--socket", &options->socket_path, "Path of the Unix socket");
  command->option("--mode", &options->socket_mode, "Permissions of that socket, octal");
  command->option("--tcp", &options->tcp,
                  "ADDRESS:PORT for the applications of secondary boards; everybody who reaches it "
                  "is served");
  command->option("--tcp-from", tcp_from,
                  "ADDRESS[/PREFIX]: serve only boards of this network over TCP; repeatable");
  command->number("--keepalive", &options->keep_alive_s,
                  "Ask clients for a keep-alive every so many seconds; 0: do not", {0, 86400});
  command->option("--policy", &options->policy,
                  "File that says who may do what; none: only the built-in rules");
  command->flag("--seccomp", &options->confined,
                "Give up rights that the server does not need, also for what it starts");
  command->flag("--log-server", &options->log_server,
                "Log to the log server as module msgsvr; without it, to standard error");
  command->flag("--swap", &options->swap_all, "Register clients in the other byte order");
  command->option("--swap-app", &options->swap_names,
                  "Do so only for the application of this name; repeatable");
  command->number("--queue", &options->queue_limit, "Bytes that may wait for one client",
                  {16384, 1 << 30});
  command->number("--cut-through", &options->cut_through,
                  "A message of more bytes is passed on while it arrives", {4096, 0x8000028});
  command->number("--stall", &options->stall_ms,
                  "Milliseconds after which such a message is given up if its sender stops",
                  {10, 60000});
  command->number("--patience", &options->patience_ms,
                  "Milliseconds that senders wait for a reader that takes next to nothing",
                  {1, 60000});
  command->number("--body-age", &options->body_age_s,
                  "Seconds after which hand-over files that nobody took over are removed; 0: never",
                  {0, 31536000});
}

void add_flight_options(servers::Command *command, Options *options) {
  command->number(
      "--flight", &options->flight_size,
      "Bytes of the flight recorder's file, rounded up to a power of two; 0: no recorder",
      {0, flight::kMostRing});
  command->number("--flight-body", &options->flight_body,
                  "Bytes of each message's body that the recorder keeps", {0, flight::kMostKept});
}

void add_admin_options(servers::Command *command, Options *options) {
  command->option("--admin", &options->admin,
                  "Unix socket that answers questions about the server by HTTP; none: no socket");
  command->option("--admin-group", &options->admin_group,
                  "Group that may use that socket, besides the server's user");
}

// What the clients of one user may make the server keep; see docs/message-server.md.
void add_limit_options(servers::Command *command, Options *options) {
  const auto add = [&](const char *name, msgsvr::Kept kind, int64_t least, const char *help) {
    command->number(name, &options->limits[static_cast<size_t>(kind)], help, {least, 1 << 30});
  };
  using msgsvr::Kept;
  add("--user-connections", Kept::kConnections, 1, "Connections that one user may have");
  add("--user-unfinished", Kept::kUnfinished, 1 << 20,
      "Bytes that one user's messages may occupy before they are whole");
  add("--user-subscriptions", Kept::kSubscriptions, 4, "Event subscriptions of one user");
  add("--user-points", Kept::kPoints, 4, "Synchronisation points of one user");
  add("--user-paths", Kept::kPaths, 4, "Restful paths of one user");
  add("--user-descriptors", Kept::kDescriptors, 4,
      "Descriptors of one user that wait for their receivers");
  add("--user-jobs", Kept::kJobs, 4,
      "Requests of one user that the configuration manager has not done yet");
}

void add_service_options(servers::Command *command, Options *options) {
  command->option(
      "--http", &options->http,
      "[ADDRESS:]PORT for restful requests by HTTP, at 127.0.0.1 unless an address is given; "
      "everybody who reaches it is served");
  command->option("--http-host", &options->http_hosts,
                  "A name by which HTTP clients may call this server, besides its addresses and "
                  "localhost; repeatable");
  command->option("--http-token", &options->http_token,
                  "File with the token that HTTP clients must send (Authorization: Bearer)");
  command->number("--http-timeout", &options->http_timeout_ms,
                  "Milliseconds that an application has to answer an HTTP request", {1, 600000});
  command->option("--apps", &options->applications, "File that lists the dynamic applications");
  command->option("--login-state", &options->login_state,
                  "File for the state of login control; empty: no file");
  command->option("--export-key", &options->export_key,
                  "File with the key of exported configurations, made at first use");
  command->option("--export-dir", &options->export_directories,
                  "Directory below which configurations are exported and imported; repeatable");
  command->flag("--factory-mode", &options->factory_mode, "Say that the device is in factory mode");
}

// Limits options so that no user gets all of the server's descriptors, and everybody can send a
// message that is kept until it is whole.
void fit_limits(size_t descriptors, Options *options) {
  const auto limit = [&](msgsvr::Kept kind) -> size_t & {
    return options->limits[static_cast<size_t>(kind)];
  };
  size_t &connections = limit(msgsvr::Kept::kConnections);
  connections = std::min(connections, descriptors / 2);
  size_t &waiting = limit(msgsvr::Kept::kDescriptors);
  waiting = std::max<size_t>(std::min(waiting, descriptors / 4), 4);
  size_t &unfinished = limit(msgsvr::Kept::kUnfinished);
  unfinished = std::max(unfinished, 8 * options->cut_through);
}

// Clients do not need the recorder, so a failure is only a log line. This runs after the server
// listens, so the file is not that of a server that is still running.
void start_recording(const Options &options, msgsvr::Server *server) {
  if (options.flight_size == 0) return;
  const uint64_t size = std::bit_ceil(std::max(options.flight_size, flight::kLeastRing));
  try {
    server->journal().record(flight::Recorder(flight::kPath, size, options.flight_body));
  } catch (const std::exception &error) {
    log_line("the flight recorder is off: {}", error.what());
  }
}

void start_admin(const Options &options, msgsvr::Server *server, msgsvr::Services *services) {
  if (options.admin == "none") return;
  try {
    services->push_back(msgsvr::make_admin(server, services));
  } catch (const std::exception &error) {
    log_line("there is no admin socket: {}", error.what());
  }
}

// None when there is no file and none is needed. Throws policy::BadPolicy.
std::optional<policy::Policy> read_policy(const Options &options) {
  if (options.policy == "none") return std::nullopt;
  // The reader reports any other error: rules that cannot be read must not count as allowing.
  if (options.policy == policy::kDefaultFile && ::access(policy::kDefaultFile, F_OK) != 0 &&
      (errno == ENOENT || errno == ENOTDIR)) {
    return std::nullopt;
  }
  catalogue::Catalogue types;
  for (const catalogue::Problem &problem : types.load()) log_line("{}", problem.text());
  policy::Policy policy = policy::Policy::load(options.policy, types, ::getegid());
  log_line("{}: {} rules", options.policy, policy.size());
  return policy;
}

// All of it or nothing.
void read_policy_anew(const Options &options, msgsvr::Server *server) try {
  std::optional<policy::Policy> policy = read_policy(options);
  if (!policy) log_line("SIGHUP: there is no policy, the built-in rules hold");
  server->gate().replace(policy ? std::move(*policy) : policy::Policy(::getegid()));
} catch (const std::exception &error) {
  log_line("SIGHUP: the policy stays as it was: {}", error.what());
}

void serve(const Options &options, mode_t socket_mode) {
  servers::EventLoop loop;
  std::signal(SIGPIPE, SIG_IGN);
  loop.on_signal(SIGTERM, [&loop] { loop.stop(); });
  loop.on_signal(SIGINT, [&loop] { loop.stop(); });

  msgsvr::Server server(&loop, options);
  const auto log_statistics = [&server] {
    for (const std::string &line : server.statistics()) log_line("{}", line);
  };
  loop.on_signal(SIGUSR1, log_statistics);
  if (auto rules = read_policy(options)) server.gate().replace(std::move(*rules));
  loop.on_signal(SIGHUP, [&server, &options] { read_policy_anew(options, &server); });
  msgsvr::Services services;
  services.push_back(msgsvr::make_registration(&server));
  services.push_back(msgsvr::make_events(&server));
  services.push_back(msgsvr::make_restful(&server));
  services.push_back(msgsvr::make_dynamic_apps(&server));
  services.push_back(msgsvr::make_sync_points(&server));
  services.push_back(msgsvr::make_login_control(&server));
  services.push_back(msgsvr::make_config_manager(&server));
  services.push_back(msgsvr::make_device_requests(&server));

  msgsvr::prepare_body_directory();
  std::optional<msgsvr::LeftBodies> left_bodies;
  if (options.body_age_s > 0) left_bodies.emplace(&loop, std::chrono::seconds(options.body_age_s));
  server.listen(servers::listen_unix(options.socket_path, socket_mode));
  if (!options.tcp.empty()) server.listen(servers::listen_tcp(options.tcp));
  start_recording(options, &server);
  start_admin(options, &server, &services);
  log_line("ready on {}{}{}", options.socket_path,
           options.tcp.empty() ? "" : ", TCP " + options.tcp,
           options.http.empty() ? "" : ", HTTP " + options.http);

  loop.run();
  log_statistics();
  server.shut_down();
  servers::remove_unix(options.socket_path);
  log_line("stopped");
}

}  // namespace

int main(int argc, char **argv) try {
  servers::set_log_name("msgsvr");
  Options options;
  servers::CommandLine line("msgsvr",
                            "Passes messages between the application processes of the device.");
  std::vector<std::string> tcp_from;
  add_options(&line, &options, &tcp_from);
  add_flight_options(&line, &options);
  add_admin_options(&line, &options);
  add_limit_options(&line, &options);
  add_service_options(&line, &options);
  if (const std::optional<int> status = line.parse(argc, argv)) return *status;
  if (options.queue_limit < kQueuePerFrame * options.cut_through) {
    return line.usage_error(
        fmt::format("--queue must be at least {} times --cut-through", kQueuePerFrame));
  }
  const std::optional<mode_t> mode = servers::octal_mode(options.socket_mode);
  if (!mode) {
    return line.usage_error("--mode " + options.socket_mode + " is no octal mode up to 0777");
  }
  for (const std::string &each : tcp_from) {
    const std::optional<servers::Network> network = servers::Network::parse(each);
    if (!network) {
      return line.usage_error("--tcp-from " + each + " is no ADDRESS or ADDRESS/PREFIX");
    }
    options.tcp_from.push_back(*network);
  }
  const bool port_alone = !options.http.empty() && options.http.find(':') == std::string::npos;
  if (port_alone) options.http.insert(0, "127.0.0.1:");
  for (std::string &directory : options.export_directories) {
    if (!directory.ends_with('/')) directory += '/';
  }

  fit_limits(servers::raise_descriptor_limit(), &options);
  if (options.log_server) servers::send_log_as("msgsvr");
  if (options.confined) {
    servers::confine(options.applications.empty() ? servers::Programs::kNone
                                                  : servers::Programs::kStarted);
  }
  serve(options, *mode);
  return EXIT_SUCCESS;
} catch (const std::exception &error) {
  servers::write_log_line(error.what());
  return EXIT_FAILURE;
}
