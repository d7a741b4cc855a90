// Dynamic applications: the server listens in their place, and starts one when its listening
// socket sees traffic. The application gets that socket as descriptor 3, with LISTEN_FDS=1 and
// LISTEN_PID set, and accepts the connections itself.
//
// An application that ends with status 0 is started again by the next traffic; one that crashes is
// started again after a delay that doubles with each crash. 0x5001 switches one on, off, or
// restarts it; 0x504D stops them all.

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/listen.h"
#include "common/log_line.h"
#include "common/octal_mode.h"
#include "msgapi/dynapp.h"
#include "msgsvr/services.h"

namespace msgsvr {
namespace {

using namespace std::chrono_literals;
using servers::log_line;
using Clock = EventLoop::Clock;

constexpr int kPassedFd = 3;
constexpr auto kFirstDelay = 1000ms;
constexpr auto kLongestDelay = 60000ms;
// After running this long, the next crash counts as the first.
constexpr auto kSteady = 60s;
// After this an application that was asked to stop is killed.
constexpr auto kStopTime = 5000ms;

struct Identity {
  uid_t user;
  gid_t group;
  std::vector<gid_t> groups;
};

struct Config {
  AppName name;
  std::vector<std::string> command;
  std::string listen;  // "tcp:ADDRESS:PORT" or "unix:PATH"
  mode_t mode = 0666;
  std::optional<Identity> identity;
};

Identity identity_of(const std::string &user) {
  errno = 0;
  const passwd *entry = ::getpwnam(user.c_str());
  if (entry == nullptr) throw std::runtime_error("there is no user " + user);
  Identity identity{entry->pw_uid, entry->pw_gid, std::vector<gid_t>(64)};
  int count = static_cast<int>(identity.groups.size());
  if (::getgrouplist(user.c_str(), entry->pw_gid, identity.groups.data(), &count) < 0) {
    identity.groups.resize(static_cast<size_t>(count));
    if (::getgrouplist(user.c_str(), entry->pw_gid, identity.groups.data(), &count) < 0) count = 0;
  }
  identity.groups.resize(static_cast<size_t>(count));
  return identity;
}

// The member `key`, a text; throws with its name when there is none.
std::string text_member(const nlohmann::json &entry, const char *key) {
  const auto member = entry.find(key);
  if (member == entry.end()) throw std::runtime_error(fmt::format("\"{}\" is missing", key));
  if (!member->is_string()) throw std::runtime_error(fmt::format("\"{}\" is not a text", key));
  return *member;
}

void refuse_other_members(const nlohmann::json &object, std::initializer_list<const char *> known) {
  if (!object.is_object()) throw std::runtime_error("it is not an object");
  for (const auto &[key, value] : object.items()) {
    if (std::ranges::find(known, key) == known.end()) {
      throw std::runtime_error(fmt::format("\"{}\" is unknown", key));
    }
  }
}

mode_t mode_of(const std::string &text) {
  const auto mode = servers::octal_mode(text);
  if (!mode) throw std::runtime_error("\"mode\" is not an octal number up to 0777");
  return *mode;
}

Config read_config(const nlohmann::json &entry) {
  refuse_other_members(entry, {"name", "executable", "arguments", "listen", "mode", "user"});
  Config config;
  const std::string name = text_member(entry, "name");
  config.name = AppName(name);
  if (config.name.is_server() || config.name.text() != name) {
    throw std::runtime_error("\"name\" is no application name of 1 to 11 characters");
  }
  config.command.push_back(text_member(entry, "executable"));
  if (!config.command.front().starts_with('/')) {
    throw std::runtime_error(config.command.front() + ": \"executable\" is no absolute path");
  }
  const nlohmann::json arguments = entry.value("arguments", nlohmann::json::array());
  for (const nlohmann::json &argument : arguments) {
    if (!arguments.is_array() || !argument.is_string()) {
      throw std::runtime_error("\"arguments\" is not a list of texts");
    }
    config.command.push_back(argument);
  }
  config.listen = text_member(entry, "listen");
  if (entry.contains("mode")) config.mode = mode_of(text_member(entry, "mode"));
  if (entry.contains("user")) config.identity = identity_of(text_member(entry, "user"));
  return config;
}

UniqueFd listen_for(const Config &config) {
  if (config.listen.starts_with("tcp:")) return servers::listen_tcp(config.listen.substr(4));
  if (config.listen.starts_with("unix:")) {
    return servers::listen_unix(config.listen.substr(5), config.mode);
  }
  throw std::runtime_error("\"listen\" is neither tcp:ADDRESS:PORT nor unix:PATH");
}

std::vector<char *> pointers(const std::vector<std::string> &texts) {
  std::vector<char *> all;
  for (const std::string &text : texts) all.push_back(const_cast<char *>(text.c_str()));
  all.push_back(nullptr);
  return all;
}

enum class Step { kUser, kDescriptor, kExecutable };

// Why a child could not become its application.
struct StartFailure {
  Step step;
  int error;
};

// Runs in the child. The parent has other threads, so only async-signal-safe calls are allowed
// (signal-safety(7)). The step that fails is written to `failure`, which a successful exec closes.
[[noreturn]] void become(const Config &config, int listener, int failure, char *const *arguments,
                         char *const *environment, char *pid_text, size_t pid_size) {
  const auto give_up = [&](Step step) {
    const StartFailure what{step, errno};
    [[maybe_unused]] const ssize_t written = ::write(failure, &what, sizeof what);
    ::_exit(127);
  };
  ::setpgid(0, 0);
  if (config.identity) {
    const Identity &who = *config.identity;
    if (::setgroups(who.groups.size(), who.groups.data()) != 0 || ::setgid(who.group) != 0 ||
        ::setuid(who.user) != 0) {
      give_up(Step::kUser);
    }
  }
  // The application expects a blocking socket, and one that survives exec.
  const int flags = ::fcntl(listener, F_GETFL);
  ::fcntl(listener, F_SETFL, flags & ~O_NONBLOCK);
  if (listener == kPassedFd) {
    ::fcntl(listener, F_SETFD, 0);
  } else if (::dup2(listener, kPassedFd) < 0) {
    give_up(Step::kDescriptor);
  }
  *std::to_chars(pid_text, pid_text + pid_size - 1, ::getpid()).ptr = '\0';
  for (const int signal : {SIGPIPE, SIGTERM, SIGINT, SIGUSR1, SIGCHLD}) ::signal(signal, SIG_DFL);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::execve(arguments[0], arguments, environment);
  give_up(Step::kExecutable);
  ::_exit(127);
}

class DynamicApps final : public Service {
 public:
  explicit DynamicApps(Server *server) : server_(server) {
    server->serve(ORP_MSG_DYNAPP_UPDATE,
                  [this](Client &from, const Message &m) { update(from, m); });
    server->serve(ORP_MSG_DYNAPP_STOP_ALL,
                  [this](Client &from, const Message &m) { stop_all(from, m); });
    if (server->options().applications.empty()) return;

    std::ifstream file(server->options().applications);
    if (!file) throw std::runtime_error("cannot read " + server->options().applications);
    nlohmann::json list;
    try {
      list = nlohmann::json::parse(file, nullptr, true, true);
      refuse_other_members(list, {"applications"});
      if (!list.contains("applications") || !list["applications"].is_array()) {
        throw std::runtime_error("there is no list \"applications\"");
      }
    } catch (const std::exception &error) {
      throw std::runtime_error(server->options().applications + ": " + error.what());
    }
    for (const nlohmann::json &entry : list["applications"]) add(entry);
    server->loop().on_signal(SIGCHLD, [this] { reap(); });
  }

  ~DynamicApps() override {
    for (const auto &app : apps_) {
      if (app->pid > 0) ::kill(-app->pid, SIGTERM);
      stop_listening(*app);
    }
  }

 private:
  struct App final : EventLoop::Watch {
    App(DynamicApps *owner_in, Config config_in) : owner(owner_in), config(std::move(config_in)) {}
    void ready(uint32_t) override { owner->start(*this); }

    DynamicApps *owner;
    const Config config;
    UniqueFd listener;      // none while switched off
    bool watched = false;   // traffic starts it
    pid_t pid = 0;          // 0: not running
    UniqueFd failure;       // where the child says why it could not start
    bool stopping = false;  // it was asked to end
    bool restart = false;   // and is to be started again then
    Clock::time_point started{};
    std::chrono::milliseconds delay = kFirstDelay;
    // Restart after a crash, or the kill. Switching off, a start and the end cancel it.
    EventLoop::TimerId timer = 0;
  };

  // Throws with the file, the application and the reason.
  void add(const nlohmann::json &entry) try {
    Config config = read_config(entry);
    if (std::ranges::any_of(apps_,
                            [&](const auto &app) { return app->config.name == config.name; })) {
      throw std::runtime_error("there is another one of this name");
    }
    // It may be installed later.
    if (::access(config.command.front().c_str(), X_OK) != 0) {
      log_line("{} cannot be started at present: {}: {}", config.name.text(),
               config.command.front(), std::strerror(errno));
    }
    apps_.push_back(std::make_unique<App>(this, std::move(config)));
    start_listening(*apps_.back());
  } catch (const std::exception &error) {
    const bool named = entry.is_object() && entry.contains("name") && entry["name"].is_string();
    throw std::runtime_error(fmt::format(
        "{}: application {}: {}", server_->options().applications,
        named ? entry["name"].get<std::string>() : "number " + std::to_string(apps_.size() + 1),
        error.what()));
  }

  void watch(App &app, bool on) {
    if (app.watched == on) return;
    app.watched = on;
    if (on) {
      server_->loop().add(app.listener.get(), EPOLLIN, &app);
    } else {
      server_->loop().remove(app.listener.get(), &app);
    }
  }

  void start_listening(App &app) {
    if (!app.listener) app.listener = listen_for(app.config);
    watch(app, app.pid == 0);
  }

  void stop_listening(App &app) {
    watch(app, false);
    if (app.listener && app.config.listen.starts_with("unix:")) {
      ::unlink(app.config.listen.substr(5).c_str());
    }
    app.listener.reset();
  }

  void start(App &app) {
    watch(app, false);
    server_->loop().cancel(app.timer);
    std::vector<char *> arguments = pointers(app.config.command);
    std::vector<std::string> variables;
    for (char **variable = environ; *variable != nullptr; ++variable) {
      const std::string_view text(*variable);
      if (!text.starts_with("LISTEN_")) variables.emplace_back(text);
    }
    variables.emplace_back("LISTEN_FDS=1");
    variables.emplace_back("LISTEN_PID=0123456789");  // the child knows its number
    std::vector<char *> environment = pointers(variables);
    char *pid_text = variables.back().data() + std::strlen("LISTEN_PID=");

    int ends[2] = {-1, -1};
    const bool has_pipe = ::pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0;
    UniqueFd failure(ends[0]);
    const UniqueFd failure_in(ends[1]);
    const pid_t pid = has_pipe ? ::fork() : -1;
    if (pid == 0) {
      become(app.config, app.listener.get(), failure_in.get(), arguments.data(), environment.data(),
             pid_text, 11);
    }
    if (pid < 0) {
      log_line("{} cannot be started: {}: {}", app.config.name.text(), app.config.command.front(),
               std::strerror(errno));
      start_later(app);
      return;
    }
    app.failure = std::move(failure);
    ::setpgid(pid, pid);  // as the child does, because either may run first (setpgid(2))
    app.pid = pid;
    app.started = Clock::now();
    log_line("{} is started, process {}", app.config.name.text(), pid);
  }

  void start_later(App &app) {
    app.timer = server_->loop().after(app.delay, [this, &app] { start(app); });
    app.delay = std::min<std::chrono::milliseconds>(app.delay * 2, kLongestDelay);
  }

  void stop(App &app) {
    server_->loop().cancel(app.timer);
    if (app.pid == 0) return;
    app.stopping = true;
    ::kill(-app.pid, SIGTERM);
    app.timer = server_->loop().after(kStopTime, [&app] {
      // Of process 0 the group would be ours.
      if (app.pid > 0) ::kill(-app.pid, SIGKILL);
    });
  }

  void reap() {
    for (const auto &app : apps_) {
      int status = 0;
      if (app->pid > 0 && ::waitpid(app->pid, &status, WNOHANG) == app->pid) ended(*app, status);
    }
    answer_stop_all();
    server_->outbox().flush();
  }

  void ended(App &app, int status) {
    const bool well = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    const bool asked = std::exchange(app.stopping, false);
    const bool restart = std::exchange(app.restart, false);
    server_->loop().cancel(app.timer);
    // Kills the processes of its group that still run.
    ::kill(-app.pid, SIGKILL);
    app.pid = 0;
    log_end(app, status);
    if (Clock::now() - app.started >= kSteady) app.delay = kFirstDelay;
    if (!app.listener) return;
    if (restart) {
      start(app);
    } else if (well || asked) {
      app.delay = kFirstDelay;
      watch(app, true);
    } else {
      log_line("{} is started again in {} ms", app.config.name.text(), app.delay.count());
      start_later(app);
    }
  }

  static void log_end(App &app, int status) {
    StartFailure failure{};
    const ssize_t got = ::read(app.failure.get(), &failure, sizeof failure);
    app.failure.reset();
    if (got != sizeof failure) {
      log_line("{} has ended: {} {}", app.config.name.text(),
               WIFEXITED(status) ? "exit status" : "signal",
               WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status));
      return;
    }
    constexpr const char *kSteps[] = {"its user cannot be taken on", "its socket cannot be passed",
                                      "it cannot be executed"};
    log_line("{} cannot be started: {}: {}: {}", app.config.name.text(), app.config.command.front(),
             kSteps[static_cast<size_t>(failure.step)], std::strerror(failure.error));
  }

  void update(Client &from, const Message &message) {
    const auto name = message.name_in_body();
    const auto entry = std::ranges::find_if(
        apps_, [&](const auto &app) { return name && app->config.name == *name; });
    if (entry == apps_.end()) {
      log_line("{} asks for {}, which is no dynamic application", from.label(),
               name ? name->text() : "nobody");
      server_->outbox().lose(from, message, Loss::kNotServed);
      return;
    }
    App &app = **entry;
    if (!may_update(from, app, message.header.ulMsgData)) {
      server_->outbox().lose(from, message, Loss::kNotPermitted);
      return;
    }
    switch (message.header.ulMsgData) {
      case ORP_DYNAPP_ON:
        try {
          start_listening(app);
        } catch (const std::exception &error) {
          log_line("{}", error.what());
        }
        break;
      case ORP_DYNAPP_OFF:
        stop_listening(app);
        stop(app);
        break;
      case ORP_DYNAPP_RESTART:
        if (!app.listener) break;
        if (app.pid > 0) {
          app.restart = true;
          stop(app);
        } else {
          start(app);
        }
        break;
      default:
        log_line("{} asks for the unknown action {} of {}", from.label(), message.header.ulMsgData,
                 app.config.name.text());
    }
  }

  // An application may stop and restart itself; it is recognised by the process group made for it.
  bool may_update(Client &from, const App &app, uint32_t what) {
    const bool itself = app.pid > 0 && from.peer.pid > 0 && ::getpgid(from.peer.pid) == app.pid;
    const auto service = policy::service_of(ORP_MSG_DYNAPP_UPDATE, what);
    return itself || server_->gate().may_use(from, *service);
  }

  // Answered when all have ended.
  void stop_all(Client &from, const Message &message) {
    if (!server_->gate().may_use(from, policy::Service::kApplicationStop)) {
      server_->outbox().lose(from, message, Loss::kNotPermitted);
      return;
    }
    for (const auto &app : apps_) {
      stop_listening(*app);
      stop(*app);
    }
    // A process waits only once: another request replaces its first.
    std::erase_if(waiting_, [&](const auto &each) { return each.first == from.id; });
    waiting_.push_back({from.id, message.header});
    answer_stop_all();
  }

  void answer_stop_all() {
    if (std::ranges::any_of(apps_, [](const auto &app) { return app->pid > 0; })) return;
    for (const auto &[client, header] : std::exchange(waiting_, {})) {
      if (Client *to = server_->by_id(client))
        server_->outbox().reply(*to, Message{header, {}, {}}, 0);
    }
  }

  Server *server_;
  std::vector<std::unique_ptr<App>> apps_;
  std::vector<std::pair<uint32_t, Header>> waiting_;
};

}  // namespace

std::unique_ptr<Service> make_dynamic_apps(Server *server) {
  return std::make_unique<DynamicApps>(server);
}

}  // namespace msgsvr
