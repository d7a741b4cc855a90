// soak [--seconds N] [--seed N]: everything at once, with servers killed and started again.
//
// Clients send, ask, publish, log, start children, notify and pass descriptors at random; a browser
// asks by HTTP. Mayflies are killed by SIGKILL at any moment, and so is each server. Every now and
// then everybody comes to rest: everything that was sent must have arrived or been reported. In the
// last part of a run no server dies: there memory must not grow.
//
// Runs in the sandbox, whose fixed paths it uses. The seed fixes what is done, but not when.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <new>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "common/command_line.h"
#include "log_check.h"
#include "msgapi/log.h"
#include "support/file.h"

namespace soak {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// How long something that must happen may take; machines may be loaded.
constexpr auto kPatience = 40s;
// Memory of its own that a process may gain between the first rest without deaths of servers and
// the last one. The allocators keep what the largest queue so far has needed, by 64 KiB and more at
// a time; a message that leaked 40 bytes would come to more than this within a minute.
constexpr uint64_t kGrowth = 768 * 1024;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMeasuresMemory = false;  // the sanitizers keep what is freed
#else
constexpr bool kMeasuresMemory = true;
#endif

// A check has failed.
class Fault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

pid_t start(const std::string &name, const std::function<void()> &work) {
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child < 0) throw Fault("no process for " + name);
  if (child > 0) return child;
  const int out =
      ::open(output_path(name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  ::dup2(out, STDOUT_FILENO);
  ::dup2(out, STDERR_FILENO);
  work();
  std::_Exit(127);
}

std::string end_of(int status) {
  if (WIFSIGNALED(status)) return "by signal " + std::to_string(WTERMSIG(status));
  return "with status " + std::to_string(WEXITSTATUS(status));
}

// ---- Servers ----

int connect_to(const std::string &path, int type) {
  const int fd = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return fd;
  ::close(fd);
  return -1;
}

struct Server {
  std::string name, socket;
  int type;
  std::vector<std::string> arguments;
  pid_t pid = -1;
  uint32_t deaths = 0;
};
enum Kind : size_t { kMessages, kLog, kNotifications, kKinds };

// ---- What is measured ----

struct Use {
  uint64_t memory = 0;  // of its own, in bytes
  size_t descriptors = 0;
};

Use use_of(pid_t pid) {
  Use use;
  const std::string directory = "/proc/" + std::to_string(pid);
  std::ifstream status(directory + "/status");
  for (std::string word; status >> word;) {
    if (word == "RssAnon:" && status >> use.memory) use.memory *= 1024;
  }
  std::error_code error;
  for (const auto &entry : fs::directory_iterator(directory + "/fd", error)) {
    // The log server opens a module's file with its first line.
    use.descriptors += !fs::read_symlink(entry, error).string().starts_with("/var/mlogfile/");
  }
  return use;
}

class Soak {
 public:
  Soak(uint32_t seconds, uint32_t seed)
      : seconds_(seconds), seed_(seed), random_(seed), begin_(steady_clock::now()) {
    void *memory =
        ::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw Fault("no memory to share");
    board_ = new (memory) Board;
  }

  void run() {
    begin_all();
    const auto storm_end = begin_ + milliseconds(seconds_ * 600);
    const auto end = begin_ + milliseconds(seconds_ * 1000);
    while (steady_clock::now() < storm_end) {
      work(between(round_ms() / 4, round_ms()));
      if (below(2) == 0) audit();
      work(between(0, 200));
      kill_servers();
    }
    work(round_ms());
    audit();
    calm_ = true;
    while (steady_clock::now() < end) {
      work(std::min<uint64_t>(
          between(round_ms(), 2 * round_ms()),
          1 + static_cast<uint64_t>(
                  std::max(duration_cast<milliseconds>(end - steady_clock::now()), 0ms).count())));
      audit();
    }
    check_growth();
    end_all();
  }

  void print_table() const;
  void print_outputs() const;
  void kill_all();

 private:
  uint64_t below(uint64_t limit) { return random_() % limit; }
  uint64_t between(uint64_t least, uint64_t most) { return least + below(most - least + 1); }
  // About how long servers live.
  uint64_t round_ms() const { return std::clamp<uint64_t>(seconds_ * 1000 / 14, 300, 6000); }

  Slot &slot(uint32_t client) const { return board_->slots[client]; }

  void begin_all();
  void end_all();
  void start_server(Kind kind);
  void kill_servers();
  void wait_for_all();
  void start_client(uint32_t client);
  void kill_mayfly(uint32_t client);
  void look_after_all();
  void work(uint64_t for_ms);
  void until(const std::function<std::string()> &what_is_missing);

  void audit();
  std::string traffic_difference();
  std::string descriptor_difference();
  nlohmann::json ask_server(const std::string &path) const;
  void check_left_files();
  void measure();
  void check_growth();

  const uint32_t seconds_, seed_;
  std::mt19937_64 random_;
  const steady_clock::time_point begin_;
  Board *board_;
  std::vector<Server> servers_ = {
      {"msgsvr",
       "/var/run/msgsvr",
       SOCK_STREAM,
       {"--http", std::to_string(kHttpPort), "--http-timeout", "30000", "--patience", "10000"}},
      {"mlogserver", "/var/mlog/mlogServer", SOCK_DGRAM, {}},
      {"notifyserver", "/var/run/notify/notifyserver", SOCK_STREAM, {}}};
  pid_t clients_[kClients] = {};
  uint32_t incarnations_[kClients] = {};
  LogCheck log_;
  uint64_t pauses_ = 0;
  bool calm_ = false;                                // no server dies any more
  std::map<std::string, Use> first_use_, last_use_;  // of the calm part
  std::map<std::string, size_t> descriptors_;

  uint64_t audits_ = 0, mayfly_deaths_ = 0, files_left_ = 0;
  std::map<std::string, uint64_t> server_losses_;
};

// ---- Beginning, looking after, ending ----

void Soak::start_server(Kind kind) {
  Server &server = servers_[kind];
  (kind == kMessages ? board_->epoch
   : kind == kLog    ? board_->log_epoch
                     : board_->notify_epoch)
      .add();
  server.pid = start(server.name, [&] {
    const std::string program = fs::read_symlink("/proc/self/exe").parent_path() / server.name;
    std::vector<char *> words = {const_cast<char *>(program.c_str())};
    for (const std::string &each : server.arguments) {
      words.push_back(const_cast<char *>(each.c_str()));
    }
    words.push_back(nullptr);
    ::execv(program.c_str(), words.data());
  });
  until([&]() -> std::string {
    const int fd = connect_to(server.socket, server.type);
    if (fd < 0) return server.name + " does not take connections";
    ::close(fd);
    return "";
  });
}

void Soak::start_client(uint32_t client) {
  const uint32_t incarnation = is_mayfly(client) ? ++incarnations_[client] : 0;
  clients_[client] = start(kNames[client], [&] { run_client(board_, client, incarnation, seed_); });
}

void Soak::begin_all() {
  for (const Kind kind : {kLog, kNotifications, kMessages}) start_server(kind);
  for (uint32_t client = 0; client < kClients; ++client) {
    if (!is_mayfly(client)) start_client(client);
  }
  wait_for_all();
}

void Soak::wait_for_all() {
  until([&]() -> std::string {
    for (uint32_t client = 0; client <= kTaker; ++client) {
      if (!is_mayfly(client) && slot(client).epoch != board_->epoch) {
        return std::string(kNames[client]) + " does not come back to the message server";
      }
      if ((client == kCms || client == kWeb) && slot(client).notify_epoch != board_->notify_epoch) {
        return std::string(kNames[client]) + " does not come back to the notify server";
      }
    }
    return "";
  });
  board_->notify_all_there.set(board_->notify_epoch);
  board_->all_there.set(board_->epoch);
  board_->serving.set(board_->epoch);
}

// Fails if anybody has ended who was not killed or told to.
void Soak::look_after_all() {
  if (board_->failed) {
    std::this_thread::sleep_for(50ms);  // the client is still writing its message
    throw Fault(board_->failure);
  }
  int status = 0;
  const pid_t ended = ::waitpid(-1, &status, WNOHANG);
  if (ended <= 0) return;
  for (const Server &server : servers_) {
    if (server.pid == ended) throw Fault(server.name + " ends " + end_of(status));
  }
  for (uint32_t client = 0; client < kClients; ++client) {
    if (clients_[client] == ended && !board_->failed) {
      throw Fault(std::string(kNames[client]) + " ends " + end_of(status));
    }
  }
}

void Soak::until(const std::function<std::string()> &what_is_missing) {
  const auto end = steady_clock::now() + kPatience;
  for (;;) {
    look_after_all();
    const std::string missing = what_is_missing();
    if (missing.empty()) return;
    if (steady_clock::now() > end) throw Fault(missing);
    std::this_thread::sleep_for(3ms);
  }
}

void Soak::kill_mayfly(uint32_t client) {
  ::kill(clients_[client], SIGKILL);
  ::waitpid(clients_[client], nullptr, 0);
  clients_[client] = 0;
  log_.add(client, incarnations_[client], slot(client).lines);
  std::construct_at(&slot(client).lines);
  slot(client).epoch.set(0);
  ++mayfly_deaths_;
}

// Lets everybody go on. Mayflies come and go.
void Soak::work(uint64_t for_ms) {
  const auto end = steady_clock::now() + milliseconds(for_ms);
  do {
    look_after_all();
    for (uint32_t client = kRegulars; client < kSpeakers; ++client) {
      if (clients_[client] == 0) {
        if (below(20) == 0) start_client(client);
      } else if (below(100) == 0) {
        kill_mayfly(client);
      }
    }
    std::this_thread::sleep_for(5ms);
  } while (steady_clock::now() < end);
}

// Kills one or several of the servers while everybody works.
void Soak::kill_servers() {
  std::vector<Kind> dying;
  while (dying.empty()) {
    if (below(2) == 0) dying.push_back(kMessages);
    if (below(3) == 0) dying.push_back(kLog);
    if (below(3) == 0) dying.push_back(kNotifications);
  }
  for (const Kind kind : dying) {
    Server &server = servers_[kind];
    if (kind == kMessages) board_->serving.set(0);
    ::kill(server.pid, SIGKILL);
    ::waitpid(server.pid, nullptr, 0);
    server.pid = -1;
    ++server.deaths;
    if (kind == kLog) log_.log_server_killed();
  }
  if (below(3) != 0) work(below(200));
  for (const Kind kind : dying) start_server(kind);
  wait_for_all();
}

void Soak::end_all() {
  for (uint32_t client = kRegulars; client < kSpeakers; ++client) {
    if (clients_[client] != 0) kill_mayfly(client);
  }
  board_->stop.set(1);
  for (uint32_t client = 0; client < kClients; ++client) {
    if (clients_[client] == 0) continue;
    int status = 0;
    if (::waitpid(clients_[client], &status, 0) > 0 && status != 0) {
      throw Fault(std::string(kNames[client]) + " ends " + end_of(status));
    }
    clients_[client] = 0;
  }
  for (Server &server : servers_) {
    int status = 0;
    ::kill(server.pid, SIGTERM);
    ::waitpid(server.pid, &status, 0);
    server.pid = -1;
    if (status != 0) throw Fault(server.name + " ends " + end_of(status) + " after SIGTERM");
  }
}

void Soak::kill_all() {
  for (const pid_t pid : clients_) {
    if (pid > 0) ::kill(pid, SIGKILL);
  }
  for (const Server &server : servers_) {
    if (server.pid > 0) ::kill(server.pid, SIGKILL);
  }
}

// ---- Audit ----

nlohmann::json Soak::ask_server(const std::string &path) const {
  const int fd = connect_to("/var/run/msgsvr.admin", SOCK_STREAM);
  const std::string request =
      "GET " + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
  std::string answer;
  if (fd >= 0 && ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) > 0) {
    char bytes[4096];
    ssize_t count;
    while ((count = ::recv(fd, bytes, sizeof bytes, 0)) > 0) {
      answer.append(bytes, static_cast<size_t>(count));
    }
  }
  ::close(fd);
  const size_t body = answer.find("\r\n\r\n");
  if (body == std::string::npos) throw Fault("the message server does not answer " + path);
  return nlohmann::json::parse(answer.substr(body + 4));
}

// How the messages that were sent differ from those received plus those reported; "" when they do
// not. While everybody rests, "" must come in the end.
std::string Soak::traffic_difference() {
  const auto say = [](const std::string &what, uint64_t sent, uint64_t got, uint64_t told) {
    return what + ": " + std::to_string(sent) + " sent, " + std::to_string(got) + " received, " +
           std::to_string(told) + " told";
  };
  uint64_t notices = 0, events_missing = 0;
  std::string where;
  for (uint32_t from = 0; from <= kTaker; ++from) {
    if (is_mayfly(from)) continue;
    const Traffic &mine = slot(from).traffic;
    const std::string name = kNames[from];
    notices += mine.notices;
    if (mine.failures != 0) {
      return name + ": " + std::to_string(mine.failures) + " sends failed without reason";
    }
    if (mine.sent_nowhere != mine.told_nowhere) {
      return say(name + " to nobody", mine.sent_nowhere, 0, mine.told_nowhere);
    }
    for (uint32_t to = 0; is_regular(from) && to < kRegulars; ++to) {
      const uint64_t got = slot(to).traffic.received[from];
      if (mine.sent[to] != got + mine.told[to]) {
        return say(name + " to " + kNames[to], mine.sent[to], got, mine.told[to]);
      }
      for (uint32_t event = 0; event < kEvents; ++event) {
        if (!subscribes(to, event)) continue;
        const uint64_t published = mine.published[event];
        const uint64_t received = slot(to).traffic.events[from][event];
        if (published == received) continue;
        events_missing += published - received;
        where = say(
            ", of " + name + " for " + kNames[to] + " as " + (event == kAsItems ? "items" : "JSON"),
            published, received, 0);
      }
    }
  }
  if (slot(kGiver).traffic.passed != slot(kTaker).traffic.taken) {
    return say("descriptors", slot(kGiver).traffic.passed, slot(kTaker).traffic.taken, 0);
  }
  for (const auto &[from, to] : {std::pair{kCms, kWeb}, std::pair{kWeb, kCms}}) {
    const Notifications &sent = slot(from).notifications, &got = slot(to).notifications;
    if (sent.failures != 0 || sent.posted != got.received) {
      return say(std::string("notifications of ") + kNames[from], sent.posted, got.received, 0) +
             ", " + std::to_string(sent.failures) + " refused";
    }
  }

  const nlohmann::json stats = ask_server("/v1/stats");
  const uint64_t told = stats["senders_told"], untold = stats["nobody_told"];
  uint64_t lost = 0;
  for (const auto &[kind, count] : stats["lost"].items()) lost += count.get<uint64_t>();
  if (told != notices) return say("notices", told, notices, 0);
  // The server's own answers to a mayfly that has gone count together with lost events: nobody is
  // told of them.
  if (untold < events_missing) {
    return std::to_string(events_missing) + " events are missing, the server counts " +
           std::to_string(untold) + where;
  }
  if (lost != told + untold) {
    return "the server counts " + std::to_string(lost) + " losses, told " + std::to_string(told) +
           " and nobody of " + std::to_string(untold);
  }
  if (stats["failed_callbacks"] != 0) return "the server had to give something up";
  return "";
}

std::string Soak::descriptor_difference() {
  const auto check = [&](const std::string &name, pid_t pid) -> std::string {
    const size_t open = use_of(pid).descriptors;
    const auto known = descriptors_.emplace(name, open).first;
    // The first look may have counted descriptors that were just being closed, so a smaller number
    // becomes the measure.
    if (open <= known->second) known->second = open;
    if (open == known->second) return "";
    return name + " has " + std::to_string(open) + " descriptors at rest, and had " +
           std::to_string(known->second);
  };
  std::string difference;
  for (const Server &server : servers_) {
    if (difference.empty()) difference = check(server.name, server.pid);
  }
  for (uint32_t client = 0; client < kClients; ++client) {
    if (difference.empty() && !is_mayfly(client)) {
      difference = check(kNames[client], clients_[client]);
    }
  }
  return difference;
}

// Hand-over files that nobody has taken over: only killed servers may leave some.
void Soak::check_left_files() {
  uint64_t left = 0;
  std::error_code error;
  for (const auto &entry : fs::directory_iterator("/var/run/msg", error)) {
    fs::remove(entry.path(), error);
    ++left;
  }
  files_left_ += left;
  if (left != 0 && calm_) {
    throw Fault(std::to_string(left) + " files of bodies are left though no server died");
  }
}

// Brings everybody to rest and compares the accounts.
void Soak::audit() {
  board_->pause.set(++pauses_);
  until([&]() -> std::string {
    for (uint32_t client = 0; client < kClients; ++client) {
      if (!is_mayfly(client) && client != kTaker && slot(client).paused != pauses_) {
        return std::string(kNames[client]) + " does not come to rest";
      }
    }
    return "";
  });
  for (uint32_t client = kRegulars; client < kSpeakers; ++client) {
    if (clients_[client] != 0) kill_mayfly(client);
  }
  until([&] { return traffic_difference(); });
  // A new server opens some descriptors only when it serves.
  until([&] { return descriptor_difference(); });
  check_left_files();

  for (uint32_t client = 0; client <= kGiver; ++client) {
    if (!is_regular(client)) continue;
    log_.add(client, 0, slot(client).lines);
    slot(client).lines.flushes.set(0);
  }
  until([] { return MlogFlushLog() == 0 ? "" : "the log server does not flush"; });
  if (const std::string wrong = log_.verify(); !wrong.empty()) throw Fault(wrong);

  const nlohmann::json stats = ask_server("/v1/stats");
  for (const auto &[kind, count] : stats["lost"].items())
    server_losses_[kind] += count.get<uint64_t>();
  if (calm_) measure();
  ++audits_;
  board_->resumed.set(pauses_);
}

void Soak::measure() {
  const auto measure = [&](const std::string &name, pid_t pid) {
    last_use_[name] = use_of(pid);
    first_use_.emplace(name, last_use_[name]);
  };
  for (const Server &server : servers_) measure(server.name, server.pid);
  for (uint32_t client = 0; client < kClients; ++client) {
    if (!is_mayfly(client)) measure(kNames[client], clients_[client]);
  }
}

void Soak::check_growth() {
  for (const auto &[name, last] : last_use_) {
    const uint64_t first = first_use_.at(name).memory;
    if (kMeasuresMemory && last.memory > first + kGrowth) {
      throw Fault(name + " has grown from " + std::to_string(first / 1024) + " to " +
                  std::to_string(last.memory / 1024) + " KiB");
    }
  }
}

// ---- What it was ----

void Soak::print_table() const {
  const auto total = [&](Counter Totals::*which) {
    uint64_t sum = 0;
    for (const Slot &each : board_->slots) sum += each.totals.*which;
    return sum;
  };
  const auto row = [](const char *what, uint64_t count) {
    std::printf("  %-58s %12llu\n", what, static_cast<unsigned long long>(count));
  };
  const uint64_t sent = total(&Totals::sent), received = total(&Totals::received);
  const uint64_t told = total(&Totals::told);
  std::printf("soak: %u s, seed %u\n", seconds_, seed_);
  row("messages sent", sent);
  row("  received", received);
  row("  reported to their sender as undeliverable", told);
  row("  neither: with a killed server or client", sent - std::min(sent, received + told));
  row("bytes of their bodies", total(&Totals::bytes));
  row("requests answered in a synchronous wait", total(&Totals::waited_for));
  row("asynchronous requests answered", total(&Totals::answered_later));
  row("  timed out, the connection or the mayfly gone", total(&Totals::unanswered));
  row("events published", total(&Totals::published));
  row("  received, by all subscribers", total(&Totals::events));
  row("descriptors passed", total(&Totals::descriptors));
  row("notifications received", total(&Totals::notifications));
  row("notify requests answered", total(&Totals::notify_requests));
  row("pages over HTTP", total(&Totals::pages));
  row("  refused while the server was away", total(&Totals::pages_refused));
  row("children reported", total(&Totals::children));
  row("log lines written", total(&Totals::lines));
  row("  in their files", log_.found());
  row("  on standard error, not taken by a log server", log_.told());
  row("  in the socket of a killed log server", log_.lost());
  row("flushes", total(&Totals::flushes));
  row("connections to the message server", total(&Totals::connections));
  for (const Server &server : servers_) row(("kill -9 of " + server.name).c_str(), server.deaths);
  row("kill -9 of clients", mayfly_deaths_);
  row("files of bodies that killed servers left", files_left_);
  row("audits", audits_);
  std::printf("losses that the message server counted, at the audits:\n");
  for (const auto &[kind, count] : server_losses_) row(("  " + kind).c_str(), count);
  std::printf(
      "memory of its own in KiB and descriptors, at the first and the last rest of the part"
      " in which no server dies:\n");
  for (const auto &[name, last] : last_use_) {
    const Use &first = first_use_.at(name);
    std::printf("  %-14s %8llu %8llu %6zu %6zu\n", name.c_str(),
                static_cast<unsigned long long>(first.memory / 1024),
                static_cast<unsigned long long>(last.memory / 1024), first.descriptors,
                last.descriptors);
  }
}

// Prints the last lines of everybody.
void Soak::print_outputs() const {
  const auto show = [](const std::string &name) {
    constexpr size_t kShown = 1500;
    const std::string text = test::contents(output_path(name));
    std::fprintf(stderr, "---- %s\n%s\n", name.c_str(),
                 text.substr(text.size() - std::min(text.size(), kShown)).c_str());
  };
  for (const Server &server : servers_) show(server.name);
  for (const char *name : kNames) show(name);
}

int main_program(int count, char **words) {
  uint32_t seconds = 60, seed = 1;
  servers::CommandLine command_line(
      "soak", "Everything at once, with servers killed and started again. Run it in the sandbox.");
  command_line.number("--seconds", &seconds, "How long", {5, 1000000});
  command_line.number("--seed", &seed, "Fixes what is done");
  if (const auto status = command_line.parse(count, words)) return *status;

  Soak soak(seconds, seed);
  std::string fault;
  try {
    soak.run();
  } catch (const std::exception &caught) {
    fault = caught.what();
  }
  soak.kill_all();
  soak.print_table();
  if (fault.empty()) return 0;
  std::fflush(stdout);
  soak.print_outputs();
  std::fprintf(stderr, "soak: FAILED: %s\nsoak: again with --seconds %u --seed %u\n", fault.c_str(),
               seconds, seed);
  return 1;
}

}  // namespace
}  // namespace soak

int main(int count, char **words) {
  return soak::main_program(count, words);
}
