// soak [--seconds N] [--seed N]: everything at once, with servers killed and started again.
//
// Clients send, ask, publish, log, start children, notify and pass descriptors at random; a browser
// asks by HTTP. Mayflies are killed by SIGKILL at any moment, and so is each server. Every now and
// then everybody comes to rest: everything that was sent must have arrived or been reported. In the
// last part of a run no server dies: there memory must not grow.
//
// Runs in the sandbox, whose fixed paths it uses. The seed fixes what is done, but not when.

#include <fcntl.h>
#include <fmt/core.h>
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

namespace soak {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
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
using Fault = std::runtime_error;

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
  return WIFSIGNALED(status) ? fmt::format("by signal {}", WTERMSIG(status))
                             : fmt::format("with status {}", WEXITSTATUS(status));
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
  Counter Board::*epoch;
  std::string arguments;
  pid_t pid = -1;
  uint32_t deaths = 0;
};
enum Kind : size_t { kMessages, kLog, kNotifications };

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
    while (steady_clock::now() < begin_ + milliseconds(seconds_ * 600)) {
      work(between(round_ms() / 4, round_ms()));
      if (below(2) == 0) audit();
      work(between(0, 200));
      kill_servers();
    }
    work(round_ms());
    audit();
    calm_ = true;
    while (steady_clock::now() < begin_ + milliseconds(seconds_ * 1000)) {
      work(between(round_ms(), 2 * round_ms()));
      audit();
    }
    check_growth();
    end_all();
  }

  void kill_all() const {
    for (const auto &[name, pid] : running()) ::kill(pid, SIGKILL);
  }

  void print_table() const {
    const auto row = [](const std::string &what, uint64_t count) {
      fmt::print("  {:58} {:12}\n", what, count);
    };
    const auto sum = [&](Counter Totals::*which) {
      uint64_t count = 0;
      for (const Slot &each : board_->slots) count += each.totals.*which;
      return count;
    };
    const auto total = [&](const char *what, Counter Totals::*which) { row(what, sum(which)); };
    fmt::print("soak: {} s, seed {}\n", seconds_, seed_);
    const uint64_t sent = sum(&Totals::sent);
    const uint64_t known = sum(&Totals::received) + sum(&Totals::told);
    total("messages sent", &Totals::sent);
    total("  received", &Totals::received);
    total("  reported to their sender as undeliverable", &Totals::told);
    row("  neither: with a killed server or client", sent - std::min(sent, known));
    total("requests answered in a synchronous wait", &Totals::waited_for);
    total("asynchronous requests answered", &Totals::answered_later);
    total("  timed out, the connection or the mayfly gone", &Totals::unanswered);
    total("events published", &Totals::published);
    total("  received, by all subscribers", &Totals::events);
    total("descriptors passed", &Totals::descriptors);
    total("notifications received", &Totals::notifications);
    total("notify requests answered", &Totals::notify_requests);
    total("pages over HTTP", &Totals::pages);
    total("  refused while the server was away", &Totals::pages_refused);
    total("children reported", &Totals::children);
    total("log lines written", &Totals::lines);
    row("  in their files", log_.found());
    row("  on standard error, not taken by a log server", log_.told());
    row("  in the socket of a killed log server", log_.lost());
    total("flushes", &Totals::flushes);
    for (const Server &server : servers_) row("kill -9 of " + server.name, server.deaths);
    row("kill -9 of clients", mayfly_deaths_);
    row("files of bodies that killed servers left", files_left_);
    row("audits", audits_);
    fmt::print(
        "memory of its own in KiB and descriptors, at the first and the last rest of the part"
        " in which no server dies:\n");
    for (const auto &[name, last] : last_use_) {
      const Use &first = first_use_.at(name);
      fmt::print("  {:14} {:8} {:8} {:6} {:6}\n", name, first.memory / 1024, last.memory / 1024,
                 first.descriptors, last.descriptors);
    }
  }

  // Prints the last lines of everybody.
  static void print_outputs() {
    [[maybe_unused]] const int shown =
        std::system(("tail -v -c 1500 " + output_path("*") + " >&2").c_str());
  }

 private:
  uint64_t below(uint64_t limit) { return random_() % limit; }
  uint64_t between(uint64_t least, uint64_t most) { return least + below(most - least + 1); }
  // About how long servers live.
  uint64_t round_ms() const { return std::clamp<uint64_t>(seconds_ * 1000 / 14, 300, 6000); }

  Slot &slot(uint32_t client) const { return board_->slots[client]; }

  // Everybody who is there, by name. No mayfly is there at rest.
  std::vector<std::pair<std::string, pid_t>> running() const {
    std::vector<std::pair<std::string, pid_t>> all;
    for (const Server &server : servers_) all.emplace_back(server.name, server.pid);
    for (uint32_t client = 0; client < kClients; ++client) {
      all.emplace_back(kNames[client], clients_[client]);
    }
    std::erase_if(all, [](const auto &each) { return each.second <= 0; });
    return all;
  }

  // ---- Beginning, looking after, ending ----

  void start_server(Server &server) {
    (board_->*server.epoch).add();
    server.pid = start(server.name, [&] {
      const fs::path programs = fs::read_symlink("/proc/self/exe").parent_path();
      const std::string command =
          fmt::format("exec {}/{} {}", programs.string(), server.name, server.arguments);
      ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    });
    until([&]() -> std::string {
      const int fd = connect_to(server.socket, server.type);
      if (fd < 0) return server.name + " does not take connections";
      ::close(fd);
      return "";
    });
  }

  void start_client(uint32_t client) {
    const uint32_t incarnation = is_mayfly(client) ? ++incarnations_[client] : 0;
    clients_[client] =
        start(kNames[client], [&] { run_client(board_, client, incarnation, seed_); });
  }

  void begin_all() {
    for (const Kind kind : {kLog, kNotifications, kMessages}) start_server(servers_[kind]);
    for (uint32_t client = 0; client < kClients; ++client) {
      if (!is_mayfly(client)) start_client(client);
    }
    wait_for_all();
  }

  void wait_for_all() {
    until([&]() -> std::string {
      for (uint32_t client = 0; client <= kTaker; ++client) {
        const std::string name = kNames[client];
        if (!is_mayfly(client) && slot(client).epoch != board_->epoch) {
          return name + " does not come back to the message server";
        }
        if (is_notified(client) && slot(client).notify_epoch != board_->notify_epoch) {
          return name + " does not come back to the notify server";
        }
      }
      return "";
    });
    board_->notify_all_there.set(board_->notify_epoch);
    board_->all_there.set(board_->epoch);
    board_->serving.set(board_->epoch);
  }

  // Fails if anybody has ended who was not killed or told to.
  void look_after_all() {
    if (board_->failed) {
      std::this_thread::sleep_for(50ms);  // the client is still writing its message
      throw Fault(board_->failure);
    }
    int status = 0;
    const pid_t ended = ::waitpid(-1, &status, WNOHANG);
    if (ended <= 0) return;
    for (const auto &[name, pid] : running()) {
      if (pid == ended && !board_->failed) throw Fault(name + " ends " + end_of(status));
    }
  }

  void until(const std::function<std::string()> &what_is_missing) {
    const auto end = steady_clock::now() + kPatience;
    for (;;) {
      look_after_all();
      const std::string missing = what_is_missing();
      if (missing.empty()) return;
      if (steady_clock::now() > end) throw Fault(missing);
      std::this_thread::sleep_for(3ms);
    }
  }

  void kill_mayfly(uint32_t client) {
    if (clients_[client] == 0) return;
    ::kill(clients_[client], SIGKILL);
    ::waitpid(clients_[client], nullptr, 0);
    clients_[client] = 0;
    log_.add(client, incarnations_[client], slot(client).lines);
    std::construct_at(&slot(client).lines);
    slot(client).epoch.set(0);
    ++mayfly_deaths_;
  }

  void kill_mayflies() {
    for (uint32_t client = kRegulars; client < kSpeakers; ++client) kill_mayfly(client);
  }

  // Lets everybody go on. Mayflies come and go.
  void work(uint64_t for_ms) {
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
  void kill_servers() {
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
    for (const Kind kind : dying) start_server(servers_[kind]);
    wait_for_all();
  }

  // Clients end when they are told to, servers by SIGTERM.
  void end_all() {
    kill_mayflies();
    board_->stop.set(1);
    const auto wait_for = [](const std::string &name, pid_t *pid) {
      int status = 0;
      ::waitpid(std::exchange(*pid, 0), &status, 0);
      if (status != 0) throw Fault(name + " ends " + end_of(status));
    };
    for (uint32_t client = 0; client < kClients; ++client) {
      if (!is_mayfly(client)) wait_for(kNames[client], &clients_[client]);
    }
    for (Server &server : servers_) {
      ::kill(server.pid, SIGTERM);
      wait_for(server.name, &server.pid);
    }
  }

  // ---- Audit ----

  static nlohmann::json ask_server(const std::string &path) {
    const std::string answer = http_get(connect_to("/var/run/msgsvr.admin", SOCK_STREAM), path);
    const size_t body = answer.find("\r\n\r\n");
    if (body == std::string::npos) throw Fault("the message server does not answer " + path);
    return nlohmann::json::parse(answer.substr(body + 4));
  }

  // How the messages that were sent differ from those received plus those reported; "" when they do
  // not. While everybody rests, "" must come in the end.
  std::string traffic_difference() const {
    const auto say = [](const std::string &what, uint64_t sent, uint64_t got, uint64_t told) {
      return fmt::format("{}: {} sent, {} received, {} told", what, sent, got, told);
    };
    uint64_t notices = 0, events_missing = 0;
    std::string where;
    for (uint32_t from = 0; from <= kTaker; ++from) {
      if (is_mayfly(from)) continue;
      const Traffic &mine = slot(from).traffic;
      const std::string name = kNames[from];
      notices += mine.notices;
      if (const uint64_t failures = mine.failures; failures != 0) {
        return fmt::format("{}: {} sends failed without reason", name, failures);
      }
      if (mine.sent[kNobody] != mine.told[kNobody]) {
        return say(name + " to nobody", mine.sent[kNobody], 0, mine.told[kNobody]);
      }
      for (uint32_t to = 0; is_regular(from) && to < kRegulars; ++to) {
        const uint64_t got = slot(to).traffic.received[from];
        if (mine.sent[to] != got + mine.told[to]) {
          return say(name + " to " + kNames[to], mine.sent[to], got, mine.told[to]);
        }
        for (uint32_t event = 0; event < kEvents; ++event) {
          const uint64_t published = mine.published[event];
          const uint64_t received = slot(to).traffic.events[from][event];
          if (!subscribes(to, event) || published == received) continue;
          events_missing += published - received;
          where = say(fmt::format(", of {} for {} as {}", name, kNames[to],
                                  event == kAsItems ? "items" : "JSON"),
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
               fmt::format(", {} refused", uint64_t{sent.failures});
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
      return fmt::format("{} events are missing, the server counts {}{}", events_missing, untold,
                         where);
    }
    if (lost != told + untold) {
      return fmt::format("the server counts {} losses, told {} and nobody of {}", lost, told,
                         untold);
    }
    if (stats["failed_callbacks"] != 0) return "the server had to give something up";
    return "";
  }

  std::string descriptor_difference() {
    for (const auto &[name, pid] : running()) {
      const size_t open = use_of(pid).descriptors;
      // The first look may have counted descriptors that were just being closed, so a smaller
      // number becomes the measure.
      size_t &known = descriptors_.emplace(name, open).first->second;
      known = std::min(known, open);
      if (open != known) {
        return fmt::format("{} has {} descriptors at rest, and had {}", name, open, known);
      }
    }
    return "";
  }

  // Hand-over files that nobody has taken over: only killed servers may leave some.
  void check_left_files() {
    uint64_t left = 0;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator("/var/run/msg", error)) {
      fs::remove(entry.path(), error);
      ++left;
    }
    files_left_ += left;
    if (left != 0 && calm_) {
      throw Fault(fmt::format("{} files of bodies are left though no server died", left));
    }
  }

  // Brings everybody to rest and compares the accounts.
  void audit() {
    board_->pause.set(++audits_);
    until([&]() -> std::string {
      for (uint32_t client = 0; client < kClients; ++client) {
        if (!is_mayfly(client) && client != kTaker && slot(client).paused != audits_) {
          return std::string(kNames[client]) + " does not come to rest";
        }
      }
      return "";
    });
    kill_mayflies();
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

    if (calm_) measure();
    board_->resumed.set(audits_);
  }

  void measure() {
    for (const auto &[name, pid] : running()) {
      last_use_[name] = use_of(pid);
      first_use_.emplace(name, last_use_[name]);
    }
  }

  void check_growth() const {
    for (const auto &[name, last] : last_use_) {
      const uint64_t first = first_use_.at(name).memory;
      if (kMeasuresMemory && last.memory > first + kGrowth) {
        throw Fault(
            fmt::format("{} has grown from {} to {} KiB", name, first / 1024, last.memory / 1024));
      }
    }
  }

  const uint32_t seconds_, seed_;
  std::mt19937_64 random_;
  const steady_clock::time_point begin_;
  Board *board_;
  std::vector<Server> servers_ = {
      {"msgsvr", "/var/run/msgsvr", SOCK_STREAM, &Board::epoch,
       fmt::format("--http {} --http-timeout 30000 --patience 10000", kHttpPort)},
      {"mlogserver", "/var/mlog/mlogServer", SOCK_DGRAM, &Board::log_epoch, ""},
      {"notifyserver", "/var/run/notify/notifyserver", SOCK_STREAM, &Board::notify_epoch, ""}};
  pid_t clients_[kClients] = {};
  uint32_t incarnations_[kClients] = {};
  LogCheck log_;
  bool calm_ = false;                                // no server dies any more
  std::map<std::string, Use> first_use_, last_use_;  // of the calm part
  std::map<std::string, size_t> descriptors_;
  uint64_t audits_ = 0, mayfly_deaths_ = 0, files_left_ = 0;
};

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
  Soak::print_outputs();
  fmt::print(stderr, "soak: FAILED: {}\nsoak: again with --seconds {} --seed {}\n", fault, seconds,
             seed);
  return 1;
}

}  // namespace
}  // namespace soak

int main(int count, char **words) {
  return soak::main_program(count, words);
}
