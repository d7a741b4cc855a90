// torture [--points COUNT] [NAME...]: makes one call after the other of a scenario fail.
//
// A scenario runs in a child with its first call of the C library failing, then in another child
// with its second, until one run passes untouched. With --points, COUNT calls are chosen evenly.
// Servers are scenarios, too: the server's calls fail while a client works, or while the server
// starts. After each failure the process must not have crashed, must have returned statuses that
// its headers state, must own no more descriptors and blocks of memory than without the failure,
// and must do the same work again.
//
// Runs in the sandbox, whose fixed paths it uses, and starts the servers that it needs.

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "msgapi.h"
#include "plan.h"
#include "scenario.h"

extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace torture {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr int kLongest_s = 60;  // a run that takes longer hangs
constexpr int kClientPatience_s = 4;
constexpr int kReported = 9;  // exit status of a child that has said what is wrong
constexpr const char *kPlanPath = "/var/tmp/torture.plan";

// Shared with the children.
Plan *g_plan;
const char *g_scenario = "";
uint32_t g_points;  // 0: every call, in every way
uint32_t g_faults;
uint32_t g_injected;
std::map<std::string, uint32_t> g_by_call;

fs::path bin() {
  return fs::read_symlink("/proc/self/exe").parent_path();
}

void say(const char *what) {
  char how[64] = "nothing failed";
  if (g_plan->struck != 0) {
    std::snprintf(how, sizeof how, "%s: %s", g_plan->call,
                  g_plan->error < 0 ? "short" : ::strerrorname_np(g_plan->error));
  }
  std::fprintf(stderr, "torture: %s, call %u (%s) from %s: %s\n", g_scenario, g_plan->nth, how,
               g_plan->struck != 0 ? g_plan->caller : "-", what);
}

// Set in a child when a check has failed.
bool g_child_failed;

template <typename Function>
Function *of_shim(const char *name) {
  return reinterpret_cast<Function *>(::dlsym(RTLD_DEFAULT, name));
}

int32_t blocks() {
  static const auto count = of_shim<Blocks>(kBlocks);
  return count();
}

uint32_t descriptors() {
  uint32_t open = 0;
  for (int fd = 0; fd < 1024; ++fd) open += ::fcntl(fd, F_GETFD) >= 0;
  return open;
}

void wait_a_little() {
  std::this_thread::sleep_for(5ms);
}

// Makes a new plan: how the `nth` call fails.
void plan(uint32_t nth, uint32_t variant) {
  g_plan->armed = 0;
  g_plan->nth = nth;
  g_plan->variant = variant;
  g_plan->count = 0;
  g_plan->struck = 0;
}

pid_t start(const std::function<void()> &work) {
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    work();
    ::_exit(0);
  }
  return child;
}

// How a process ended; "" for exit status 0.
std::string end_of(int status) {
  if (WIFSIGNALED(status)) {
    return WTERMSIG(status) == SIGALRM ? "it hangs" : "signal " + std::to_string(WTERMSIG(status));
  }
  return WEXITSTATUS(status) == 0 ? "" : "exit status " + std::to_string(WEXITSTATUS(status));
}

std::string described(int status) {
  const std::string end = end_of(status);
  return end.empty() ? "exit status 0" : end;
}

void count_fault(const std::string &what) {
  say(what.c_str());
  ++g_faults;
}

void count_point() {
  ++g_injected;
  ++g_by_call[g_plan->call];
}

// ---- Which calls fail --------------------------------------------------------------------------

// Runs attempt() for one call after the other until nothing more can fail. attempt() arms the plan
// itself. `all` is the number of calls.
void for_each_point(uint32_t all, const std::function<void()> &attempt) {
  if (g_points != 0) {
    const uint32_t points = std::min(g_points, all);
    for (uint32_t i = 0; i < points; ++i) {
      plan(1 + static_cast<uint32_t>(uint64_t{i} * all / points), i);
      attempt();
    }
    return;
  }
  for (uint32_t nth = 1;; ++nth) {
    uint32_t variant = 0;
    do {
      plan(nth, variant);
      attempt();
    } while (g_plan->struck != 0 && ++variant < g_plan->variants);
    if (g_plan->struck == 0 && nth > all + 20) return;  // the number varies a little
  }
}

// ---- Scenarios in a child ----------------------------------------------------------------------

// What a process owns after two runs.
struct Possessions {
  uint32_t descriptors;
  int32_t blocks;  // more than before
};

// In a child: runs the scenario with the plan armed, then twice untouched. `usual` is what it owns
// then without a failure; zeros: not known yet.
Possessions run_twice(const Scenario &scenario, const Possessions &usual) {
  of_shim<Attach>(kAttach)(g_plan);
  const int32_t blocks_before = blocks();
  ::alarm(kLongest_s);
  const int null = ::open("/dev/null", O_RDWR);
  ::dup2(null, STDOUT_FILENO);
  ::close(null);

  const auto armed_run = [&] {
    g_plan->armed = 1;
    const bool done = scenario.run();
    g_plan->armed = 0;
    return done;
  };
  armed_run();
  // A server may still be busy with the end of the first run.
  bool again = scenario.run();
  for (int tries = 0; !again && tries < 3; ++tries) {
    std::this_thread::sleep_for(100ms);
    again = scenario.run();
  }
  must(again, "the next untouched run does not work");
  must(scenario.run(), "the run after the next does not work");
  // Before a fork() the configuration store closes its connection and everything that this caches.
  ::waitpid(start([] {}), nullptr, 0);
  const Possessions now = {descriptors(), blocks() - blocks_before};
  if (usual.descriptors != 0) {
    must(now.descriptors <= usual.descriptors, "a descriptor is left open");
    must(now.blocks <= usual.blocks, "a block of memory is left");
  }
  if (__lsan_do_recoverable_leak_check != nullptr) {
    must(__lsan_do_recoverable_leak_check() == 0, "memory is lost");
  }
  return now;
}

void torture_scenario(const Scenario &scenario) {
  auto *usual = static_cast<Possessions *>(::mmap(
      nullptr, sizeof(Possessions), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const auto attempt = [&](bool first) {
    int status = 0;
    const pid_t child = start([&] {
      const Possessions now = run_twice(scenario, *usual);
      if (first) *usual = now;
      ::_exit(g_child_failed ? kReported : 0);
    });
    ::waitpid(child, &status, 0);
    g_plan->armed = 0;
    if (g_plan->struck != 0) count_point();
    if (WIFEXITED(status) && WEXITSTATUS(status) == kReported) {
      ++g_faults;
    } else if (const std::string end = end_of(status); !end.empty()) {
      count_fault(end);
    }
  };
  plan(0, 0);
  attempt(true);
  const uint32_t all = g_plan->count;
  for_each_point(all, [&] { attempt(false); });
  ::munmap(usual, sizeof *usual);
}

// ---- Servers -----------------------------------------------------------------------------------

struct Server {
  const char *program;
  const char *socket;
  std::vector<const char *> client_scenarios;
  void (*servant)(void (*ready)());
};

const Server kServers[] = {
    {"mlogserver", "/var/mlog/mlogServer", {"log"}, nullptr},
    {"msgsvr", "/var/run/msgsvr", {"request", "event", "restful", "dispatch"}, serve_messages},
    {"notifyserver", "/var/run/notify/notifyserver", {"notify"}, serve_notifications},
};

pid_t start_server(const Server &server, bool with_shim) {
  ::unlink(server.socket);
  return start([&] {
    of_shim<Attach>(kAttach)(nullptr);  // the plan is for the program
    if (with_shim) {
      ::setenv(kPlanVariable, kPlanPath, 1);
    } else {
      ::unsetenv("LD_PRELOAD");
    }
    const int out = ::open(("/var/log/" + std::string(server.program)).c_str(),
                           O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::dup2(out, STDOUT_FILENO);
    if (::getenv("TORTURE_SHOW") == nullptr) ::dup2(out, STDERR_FILENO);
    ::close(out);
    const std::string program = bin() / server.program;
    ::execl(program.c_str(), program.c_str(), nullptr);
    ::_exit(127);
  });
}

bool has_ended(pid_t child, int *status) {
  return ::waitpid(child, status, WNOHANG) == child;
}

// Waits until the server takes clients. False when it has ended, with *status.
bool wait_for(const Server &server, pid_t pid, int *status) {
  for (int tries = 0; tries < 4000; ++tries) {
    if (::access(server.socket, F_OK) == 0) return true;
    if (has_ended(pid, status)) return false;
    wait_a_little();
  }
  *status = SIGALRM;
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  return false;
}

// Sends SIGTERM and waits for the end for a bounded time.
int stop(pid_t pid) {
  int status = 0;
  ::kill(pid, SIGTERM);
  for (int tries = 0; tries < 2000; ++tries) {
    if (has_ended(pid, &status)) return status;
    wait_a_little();
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, &status, 0);
  return SIGALRM;
}

void kill_now(pid_t pid) {
  if (pid <= 0) return;
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

uint32_t descriptors_of(pid_t pid) {
  uint32_t count = 0;
  std::error_code ignored;
  for ([[maybe_unused]] const auto &entry :
       fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ignored)) {
    ++count;
  }
  return count;
}

const Scenario &scenario_named(std::string_view name) {
  for (const auto all : {message_scenarios(), utility_scenarios()}) {
    for (const Scenario &scenario : all) {
      if (name == scenario.name) return scenario;
    }
  }
  std::abort();
}

// One run of a scenario by a client whose calls do not fail.
bool client_works(const Scenario &scenario) {
  int status = 0;
  const pid_t child = start([&] {
    of_shim<Attach>(kAttach)(nullptr);
    // A message that the server's failure has lost will never come.
    ::alarm(kClientPatience_s);
    const int null = ::open("/dev/null", O_RDWR);
    ::dup2(null, STDOUT_FILENO);
    // must() is silenced, too: the client only sees what the server's failure did to it.
    if (::getenv("TORTURE_SHOW") == nullptr) ::dup2(null, STDERR_FILENO);
    ::close(null);
    ::_exit(scenario.run() ? 0 : 1);
  });
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A server, and the application (the servant) that clients reach through it.
class World {
 public:
  explicit World(const Server &server) : server_(server) {}
  ~World() {
    kill_now(servant_);
    kill_now(pid_);
  }

  // False when the server has ended; *status tells how.
  bool begin(bool with_shim, int *status) {
    pid_ = start_server(server_, with_shim);
    if (wait_for(server_, pid_, status)) return true;
    pid_ = -1;
    return false;
  }

  // Whether a client can work now or soon, if need be with a new servant.
  bool works(const Scenario &scenario) {
    for (int tries = 0; tries < 20; ++tries) {
      if (server_.servant != nullptr && (servant_ <= 0 || tries % 4 == 1)) {
        kill_now(servant_);
        start_servant();
      }
      if (client_works(scenario)) return true;
      std::this_thread::sleep_for(30ms);
    }
    return false;
  }

  bool is_there(int *status) {
    if (pid_ > 0 && !has_ended(pid_, status)) return true;
    pid_ = -1;
    return false;
  }

  int end() {
    kill_now(servant_);
    const int status = stop(pid_);
    pid_ = servant_ = -1;
    return status;
  }

  uint32_t open_descriptors() const { return descriptors_of(pid_); }

 private:
  // Returns when the servant is registered, or has ended.
  void start_servant() {
    static int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) std::abort();
    servant_ = start([&] {
      of_shim<Attach>(kAttach)(nullptr);
      const int null = ::open("/dev/null", O_RDWR);
      ::dup2(null, STDOUT_FILENO);
      ::dup2(null, STDERR_FILENO);
      ::close(ready[0]);
      server_.servant([] { ::close(ready[1]); });
    });
    ::close(ready[1]);
    char none;
    [[maybe_unused]] const ssize_t end = ::read(ready[0], &none, 1);
    ::close(ready[0]);
  }

  const Server &server_;
  pid_t pid_ = -1;
  pid_t servant_ = -1;
};

void torture_start(const Server &server) {
  const Scenario &scenario = scenario_named(server.client_scenarios.front());
  const auto attempt = [&] {
    World world(server);
    int status = 0;
    g_plan->armed = 1;
    const bool there = world.begin(true, &status);
    if (there) std::this_thread::sleep_for(10ms);
    g_plan->armed = 0;
    if (g_plan->struck != 0) count_point();
    if (!there || !world.works(scenario)) {
      if (there && world.is_there(&status)) return count_fault("the server does not serve");
      // The server may give up because a call failed, if its exit status says so.
      if (!WIFEXITED(status) || WEXITSTATUS(status) == 0 || g_plan->struck == 0) {
        count_fault("at its start: " + described(status));
      }
      return;
    }
    if (const std::string end = end_of(world.end()); !end.empty())
      count_fault("at its end: " + end);
  };
  plan(0, 0);
  attempt();
  for_each_point(g_plan->count, attempt);
}

void torture_service(const Server &server, const char *client_scenario) {
  const Scenario &scenario = scenario_named(client_scenario);
  auto world = std::make_unique<World>(server);
  int status = 0;
  uint32_t usual = 0;

  const auto begin = [&] {
    world = std::make_unique<World>(server);
    if (!world->begin(true, &status) || !world->works(scenario) || !world->works(scenario)) {
      count_fault("the server does not serve before anything has failed");
      std::exit(1);
    }
    std::this_thread::sleep_for(50ms);
    usual = world->open_descriptors();
  };
  const auto attempt = [&] {
    g_plan->armed = 1;
    client_works(scenario);
    g_plan->armed = 0;
    if (g_plan->struck != 0) count_point();
    if (!world->is_there(&status)) {
      count_fault("the server: " + described(status));
      return begin();
    }
    if (!world->works(scenario)) {
      count_fault("the server does not serve any more");
      return begin();
    }
    uint32_t open = 0;
    for (int tries = 0; tries < 400 && (open = world->open_descriptors()) > usual; ++tries) {
      wait_a_little();
    }
    if (open > usual) {
      count_fault("the server keeps a descriptor");
      begin();
    }
  };
  plan(0, 0);
  begin();
  plan(0, 0);
  attempt();
  for_each_point(g_plan->count, attempt);
  if (const std::string end = end_of(world->end()); !end.empty()) count_fault("at its end: " + end);
}

// ---- The program -------------------------------------------------------------------------------

void *map_plan() {
  const int fd = ::open(kPlanPath, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ::ftruncate(fd, sizeof(Plan)) != 0) return MAP_FAILED;
  void *memory = ::mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  return memory;
}

// The jobs that can be named: every scenario, and every server's start and service.
struct Job {
  std::string name;
  std::function<void()> run;
};

// The servers and servants that the scenarios of clients need.
class Servers {
 public:
  Servers() {
    for (const Server &server : kServers) {
      int status = 0;
      worlds_.push_back(std::make_unique<World>(server));
      if (!worlds_.back()->begin(false, &status) ||
          !worlds_.back()->works(scenario_named(server.client_scenarios.front()))) {
        std::fprintf(stderr, "torture: %s does not serve\n", server.program);
        std::exit(1);
      }
    }
  }

 private:
  std::vector<std::unique_ptr<World>> worlds_;
};

std::vector<Job> all_jobs() {
  std::vector<Job> jobs;
  for (const Scenario &scenario : utility_scenarios()) {
    jobs.push_back({scenario.name, [&] { torture_scenario(scenario); }});
  }
  for (const Scenario &scenario : message_scenarios()) {
    jobs.push_back({scenario.name, [&] {
                      static const Servers servers;
                      torture_scenario(scenario);
                    }});
  }
  return jobs;
}

std::vector<Job> server_jobs() {
  std::vector<Job> jobs;
  for (const Server &server : kServers) {
    const std::string name = server.program;
    jobs.push_back({name + ".start", [&] { torture_start(server); }});
    for (const char *scenario : server.client_scenarios) {
      jobs.push_back(
          {name + "." + scenario, [&server, scenario] { torture_service(server, scenario); }});
    }
  }
  return jobs;
}

void run(const Job &job) {
  const uint32_t faults = g_faults, injected = g_injected;
  const auto begin = std::chrono::steady_clock::now();
  g_scenario = job.name.c_str();
  job.run();
  if (g_injected == injected) count_fault("no call has failed: nothing was tested");
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  std::printf("%-28s %6u failures injected, %3u faults, %6.1f s\n", g_scenario,
              g_injected - injected, g_faults - faults, took.count());
  std::fflush(stdout);
}

int usage() {
  std::fputs("usage: sandbox -- torture [--points COUNT] [--list] [clients|servers|NAME...]\n",
             stderr);
  return 2;
}

// Starts this program again with the shim, which is beside the libraries.
int start_with_shim(char **words) {
  const fs::path shim = bin().parent_path() / "lib" / "libtorture_shim.so";
  // The dynamic linker only warns of an object that it cannot load: this would start itself for
  // ever.
  const char *loaded = std::getenv("LD_PRELOAD");
  if (loaded != nullptr && shim == loaded) {
    std::fprintf(stderr, "torture: %s cannot be loaded\n", loaded);
    return 1;
  }
  ::setenv("LD_PRELOAD", shim.c_str(), 1);
  // The shim must come before the sanitizers' library, which this option allows.
  const char *options = std::getenv("ASAN_OPTIONS");
  const std::string with_shim =
      std::string(options == nullptr ? "" : options) +
      ":verify_asan_link_order=0:allocator_may_return_null=1:detect_leaks=1:disable_coredump=1";
  ::setenv("ASAN_OPTIONS", with_shim.c_str(), 1);
  ::execv("/proc/self/exe", words);
  std::perror("torture: exec");
  return 1;
}

int main_program(int count, char **words) {
  std::vector<Job> chosen;
  const std::vector<Job> clients = all_jobs(), servers = server_jobs();
  for (int i = 1; i < count; ++i) {
    const std::string_view word = words[i];
    if (word == "--points" && i + 1 < count) {
      g_points = static_cast<uint32_t>(std::strtoul(words[++i], nullptr, 10));
      continue;
    }
    const size_t before = chosen.size();
    for (const auto *jobs : {&clients, &servers}) {
      for (const Job &job : *jobs) {
        if (word == "--list") std::printf("%s\n", job.name.c_str());
        if (word == job.name || word == (jobs == &clients ? "clients" : "servers")) {
          chosen.push_back(job);
        }
      }
    }
    if (word == "--list") return 0;
    if (chosen.size() == before) return usage();
  }
  if (chosen.empty()) {
    chosen = clients;
    chosen.insert(chosen.end(), servers.begin(), servers.end());
  }

  // A buffer of our own, so that a line that the library prints is no allocation.
  static char line[BUFSIZ];
  std::setvbuf(stdout, line, _IOLBF, sizeof line);

  const auto attach = of_shim<Attach>(kAttach);
  if (attach == nullptr) return start_with_shim(words);
  void *memory = map_plan();
  if (memory == MAP_FAILED) {
    std::perror("torture: the plan");
    return 1;
  }
  g_plan = new (memory) Plan{};

  for (const Job &job : chosen) run(job);
  std::printf("%u failures injected, %u faults found\n", g_injected, g_faults);
  for (const auto &[call, times] : g_by_call) std::printf("  %-16s %u\n", call.c_str(), times);
  return g_faults == 0 ? 0 : 1;
}

}  // namespace

bool succeeded(const char *call, int64_t status, std::initializer_list<int64_t> stated) {
  if (status == 0) return true;
  for (const int64_t each : stated) {
    if (status == each) return false;
  }
  char text[120];
  std::snprintf(text, sizeof text, "%s returns 0x%llx, which is not stated", call,
                static_cast<unsigned long long>(status));
  must(false, text);
  return false;
}

bool must(bool holds, const char *what) {
  if (holds) return true;
  const uint32_t armed = g_plan->armed.exchange(0);
  say(what);
  g_plan->armed = armed;
  g_child_failed = true;
  return false;
}

}  // namespace torture

int main(int count, char **words) {
  return torture::main_program(count, words);
}
