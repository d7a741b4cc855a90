// msgsvr: the message server through which all application processes talk to each other.

#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <vector>

#include "common/event_loop.h"
#include "common/listen.h"
#include "common/log_line.h"
#include "msgsvr/options.h"
#include "msgsvr/server.h"
#include "msgsvr/services.h"

namespace {

using msgsvr::Options;
using servers::log_line;

// The smallest queue holds a frame that is kept until it is whole, and some more.
constexpr size_t kQueuePerFrame = 2;

void add_options(CLI::App *app, Options *options) {
  app->set_version_flag("--version", "1.0.0");
  app->add_option("--socket", options->socket_path, "Path of the Unix socket")
      ->capture_default_str();
  app->add_option("--mode", options->socket_mode, "Its permissions, octal")->capture_default_str();
  app->add_option("--tcp", options->tcp,
                  "ADDRESS:PORT for the applications of secondary boards; anybody who reaches it "
                  "is served");
  app->add_option("--keepalive", options->keep_alive_s,
                  "Ask clients for a sign of life every so many seconds; 0: do not")
      ->check(CLI::Range(0, 86400))
      ->capture_default_str();
  app->add_flag("--swap", options->swap_all, "Register clients in the other byte order");
  app->add_option("--swap-app", options->swap_names,
                  "Only the application of this name; repeatable");
  app->add_option("--queue", options->queue_limit, "Bytes that may wait for one client")
      ->check(CLI::Range(size_t{16384}, size_t{1} << 30))
      ->capture_default_str();
  app->add_option("--cut-through", options->cut_through,
                  "A message of more bytes is passed on while it arrives")
      ->check(CLI::Range(size_t{4096}, size_t{0x8000028}))
      ->capture_default_str();
  app->add_option("--stall", options->stall_ms,
                  "Milliseconds after which such a message is given up if its sender stops")
      ->check(CLI::Range(10, 60000))
      ->capture_default_str();
  app->add_option("--patience", options->patience_ms,
                  "Milliseconds that senders wait for a reader that takes next to nothing")
      ->check(CLI::Range(1, 60000))
      ->capture_default_str();
}

void add_service_options(CLI::App *app, Options *options) {
  app->add_option(
      "--http", options->http,
      "[ADDRESS:]PORT for restful requests by HTTP, the address 127.0.0.1 unless one is "
      "given; anybody who reaches it is served");
  app->add_option("--http-timeout", options->http_timeout_ms,
                  "Milliseconds that an application has to answer one")
      ->check(CLI::Range(1, 600000))
      ->capture_default_str();
  app->add_option("--apps", options->applications, "File that lists the dynamic applications");
  app->add_option("--login-state", options->login_state,
                  "File in which login control keeps what it knows; empty: nowhere")
      ->capture_default_str();
  app->add_option("--export-key", options->export_key,
                  "File with the key of exported configurations, made at first use")
      ->capture_default_str();
  app->add_option("--export-dir", options->export_directories,
                  "Directory below which configurations are exported and imported; repeatable")
      ->capture_default_str();
  app->add_flag("--factory-mode", options->factory_mode, "The device is in the factory");
}

mode_t permissions(const std::string &octal) {
  char *end = nullptr;
  const unsigned long mode = std::strtoul(octal.c_str(), &end, 8);
  if (octal.empty() || *end != '\0' || mode > 0777) {
    throw std::runtime_error("--mode " + octal + " is no octal mode up to 0777");
  }
  return static_cast<mode_t>(mode);
}

// Every client needs a descriptor.
void raise_descriptor_limit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

void serve(const Options &options) {
  servers::EventLoop loop;
  std::signal(SIGPIPE, SIG_IGN);
  loop.on_signal(SIGHUP, [] { log_line("SIGHUP: there is no file to read anew"); });
  loop.on_signal(SIGTERM, [&loop] { loop.stop(); });
  loop.on_signal(SIGINT, [&loop] { loop.stop(); });

  msgsvr::Server server(&loop, options);
  const auto log_statistics = [&server] {
    for (const std::string &line : server.statistics()) log_line("{}", line);
  };
  loop.on_signal(SIGUSR1, log_statistics);
  std::vector<std::unique_ptr<msgsvr::Service>> services;
  services.push_back(msgsvr::make_registration(&server));
  services.push_back(msgsvr::make_events(&server));
  services.push_back(msgsvr::make_restful(&server));
  services.push_back(msgsvr::make_dynamic_apps(&server));
  services.push_back(msgsvr::make_sync_points(&server));
  services.push_back(msgsvr::make_login_control(&server));
  services.push_back(msgsvr::make_config_manager(&server));
  services.push_back(msgsvr::make_device_requests(&server));

  server.listen(servers::listen_unix(options.socket_path, permissions(options.socket_mode)));
  if (!options.tcp.empty()) server.listen(servers::listen_tcp(options.tcp));
  log_line("ready on {}", options.socket_path);

  loop.run();
  ::unlink(options.socket_path.c_str());
  log_statistics();
  server.shut_down();
  log_line("stopped");
}

}  // namespace

int main(int argc, char **argv) try {
  servers::set_log_name("msgsvr");
  Options options;
  CLI::App app("Passes messages between the application processes of the device.");
  add_options(&app, &options);
  add_service_options(&app, &options);
  CLI11_PARSE(app, argc, argv);
  if (options.queue_limit < kQueuePerFrame * options.cut_through) {
    std::fprintf(stderr, "msgsvr: --queue must be at least %zu times --cut-through\n",
                 kQueuePerFrame);
    return EXIT_FAILURE;
  }
  const bool port_alone = !options.http.empty() && options.http.find(':') == std::string::npos;
  if (port_alone) options.http.insert(0, "127.0.0.1:");
  for (std::string &directory : options.export_directories) {
    if (!directory.ends_with('/')) directory += '/';
  }

  raise_descriptor_limit();
  serve(options);
  return EXIT_SUCCESS;
} catch (const std::exception &error) {
  servers::write_log_line(error.what());
  return EXIT_FAILURE;
}
