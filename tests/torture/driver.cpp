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

// How many descriptors a process has open; of this one, one more.
uint32_t descriptors_of(pid_t pid) {
  std::error_code ignored;
  const fs::directory_iterator all("/proc/" + std::to_string(pid) + "/fd", ignored);
  return static_cast<uint32_t>(std::distance(begin(all), end(all)));
}

// Whether `holds` comes true within 5 ms times `tries`.
bool comes_true(int tries, const std::function<bool()> &holds) {
  for (; tries > 0; --tries) {
    if (holds()) return true;
    std::this_thread::sleep_for(5ms);
  }
  return false;
}

// Sends what this process prints, and its errors if need be, nowhere.
void silence(bool errors_too) {
  const int null = ::open("/dev/null", O_RDWR);
  ::dup2(null, STDOUT_FILENO);
  if (errors_too) ::dup2(null, STDERR_FILENO);
  ::close(null);
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

// How a process ended.
std::string end_of(int status) {
  if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  return WTERMSIG(status) == SIGALRM ? "it hangs" : "signal " + std::to_string(WTERMSIG(status));
}

void count_fault(const std::string &what) {
  say(what.c_str());
  ++g_faults;
}

// No further call fails. Counts the one that has failed, if any.
void disarm() {
  g_plan->armed = 0;
  if (g_plan->struck == 0) return;
  ++g_injected;
  ++g_by_call[g_plan->call];
}

// ---- Which calls fail --------------------------------------------------------------------------

// Runs attempt() with no call failing, then for one call after the other until nothing more can
// fail. attempt() arms the plan itself.
void for_each_point(const std::function<void()> &attempt) {
  plan(0, 0);
  attempt();
  const uint32_t all = g_plan->count;
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

// In a child: runs the scenario with the plan armed, then twice untouched. What the process owns
// then must not be more than without a failure, which is tried first.
void run_thrice(const Scenario &scenario) {
  of_shim<Attach>(kAttach)(g_plan);
  const int32_t blocks_before = blocks();
  ::alarm(kLongest_s);
  silence(false);

  g_plan->armed = 1;
  scenario.run();
  g_plan->armed = 0;
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
  const uint32_t open = descriptors_of(::getpid());
  const int32_t kept = blocks() - blocks_before;
  if (g_plan->nth == 0) {
    g_plan->usual_descriptors = open;
    g_plan->usual_blocks = kept;
  }
  must(open <= g_plan->usual_descriptors, "a descriptor is left open");
  must(kept <= g_plan->usual_blocks, "a block of memory is left");
  if (__lsan_do_recoverable_leak_check != nullptr) {
    must(__lsan_do_recoverable_leak_check() == 0, "memory is lost");
  }
}

void torture_scenario(const Scenario &scenario) {
  for_each_point([&] {
    int status = 0;
    const pid_t child = start([&] {
      run_thrice(scenario);
      ::_exit(g_child_failed ? kReported : 0);
    });
    ::waitpid(child, &status, 0);
    disarm();
    if (WIFEXITED(status) && WEXITSTATUS(status) == kReported) {
      ++g_faults;
    } else if (status != 0) {
      count_fault(end_of(status));
    }
  });
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

void kill_now(pid_t *pid) {
  if (*pid <= 0) return;
  ::kill(*pid, SIGKILL);
  ::waitpid(*pid, nullptr, 0);
  *pid = -1;
}

const Scenario &scenario_named(std::string_view name) {
  for (const Scenario &scenario : message_scenarios()) {
    if (name == scenario.name) return scenario;
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
    // must() is silenced, too: the client only sees what the server's failure did to it.
    silence(::getenv("TORTURE_SHOW") == nullptr);
    ::_exit(scenario.run() ? 0 : 1);
  });
  ::waitpid(child, &status, 0);
  return status == 0;
}

// A server, and the application (the servant) that clients reach through it.
class World {
 public:
  explicit World(const Server &server) : server_(server) {}
  ~World() {
    kill_now(&servant_);
    kill_now(&pid_);
  }

  // Whether the server takes clients. Otherwise it has ended.
  bool begin(bool with_shim) {
    pid_ = start_server(server_, with_shim);
    wait_for([&] { return ::access(server_.socket, F_OK) == 0; });
    return pid_ > 0;
  }

  // Whether a client can work now or soon, if need be with a new servant.
  bool works(const Scenario &scenario) {
    for (int tries = 0; tries < 20; ++tries) {
      if (server_.servant != nullptr && (servant_ <= 0 || tries % 4 == 1)) {
        kill_now(&servant_);
        start_servant();
      }
      if (client_works(scenario)) return true;
      std::this_thread::sleep_for(30ms);
    }
    return false;
  }

  bool is_there() {
    if (pid_ > 0 && ::waitpid(pid_, &status_, WNOHANG) == pid_) pid_ = -1;
    return pid_ > 0;
  }

  // How the server has ended.
  int status() const { return status_; }

  // Ends everything in order.
  void end() {
    kill_now(&servant_);
    ::kill(pid_, SIGTERM);
    wait_for([] { return false; });
    if (status_ != 0) count_fault("at its end: " + end_of(status_));
  }

  uint32_t open_descriptors() const { return descriptors_of(pid_); }

 private:
  // Waits until the server has ended, or `enough`. A server that takes too long is killed.
  void wait_for(const std::function<bool()> &enough) {
    if (comes_true(4000, [&] { return enough() || !is_there(); })) return;
    kill_now(&pid_);
    status_ = SIGALRM;
  }

  // Returns when the servant is registered, or has ended.
  void start_servant() {
    static int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) std::abort();
    servant_ = start([&] {
      of_shim<Attach>(kAttach)(nullptr);
      silence(true);
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
  int status_ = 0;
};

void torture_start(const Server &server) {
  const Scenario &scenario = scenario_named(server.client_scenarios.front());
  for_each_point([&] {
    World world(server);
    g_plan->armed = 1;
    const bool there = world.begin(true);
    if (there) std::this_thread::sleep_for(10ms);
    disarm();
    if (there && world.works(scenario)) return world.end();
    if (world.is_there()) return count_fault("the server does not serve");
    // The server may give up because a call failed, if its exit status says so.
    const int status = world.status();
    if (!WIFEXITED(status) || WEXITSTATUS(status) == 0 || g_plan->struck == 0) {
      count_fault("at its start: " + end_of(status));
    }
  });
}

void torture_service(const Server &server, const Scenario &scenario) {
  std::unique_ptr<World> world;  // none at the beginning and after a fault
  uint32_t usual = 0;
  for_each_point([&] {
    if (world == nullptr) {
      world = std::make_unique<World>(server);
      if (!world->begin(true) || !world->works(scenario) || !world->works(scenario)) {
        count_fault("the server does not serve before anything has failed");
        std::exit(1);
      }
      std::this_thread::sleep_for(50ms);
      usual = world->open_descriptors();
    }
    g_plan->armed = 1;
    client_works(scenario);
    disarm();
    if (!world->is_there()) {
      count_fault("the server: " + end_of(world->status()));
    } else if (!world->works(scenario)) {
      count_fault("the server does not serve any more");
    } else if (!comes_true(400, [&] { return world->open_descriptors() <= usual; })) {
      count_fault("the server keeps a descriptor");
    } else {
      return;
    }
    world.reset();
  });
  if (world != nullptr) world->end();
}

// ---- The program -------------------------------------------------------------------------------

// The jobs that can be named: every scenario, and every server's start and service.
struct Job {
  std::string group, name;
  std::function<void()> run;
};

// Starts the servers and servants that the scenarios of clients need, once.
void start_servers() {
  static std::vector<std::unique_ptr<World>> worlds;
  if (!worlds.empty()) return;
  for (const Server &server : kServers) {
    worlds.push_back(std::make_unique<World>(server));
    if (!worlds.back()->begin(false) ||
        !worlds.back()->works(scenario_named(server.client_scenarios.front()))) {
      std::fprintf(stderr, "torture: %s does not serve\n", server.program);
      std::exit(1);
    }
  }
}

std::vector<Job> all_jobs() {
  std::vector<Job> jobs;
  for (const Scenario &scenario : utility_scenarios()) {
    jobs.push_back({"clients", scenario.name, [&] { torture_scenario(scenario); }});
  }
  for (const Scenario &scenario : message_scenarios()) {
    jobs.push_back({"clients", scenario.name, [&] {
                      start_servers();
                      torture_scenario(scenario);
                    }});
  }
  for (const Server &server : kServers) {
    const std::string name = server.program;
    jobs.push_back({"servers", name + ".start", [&] { torture_start(server); }});
    for (const char *scenario : server.client_scenarios) {
      jobs.push_back({"servers", name + "." + scenario,
                      [&, scenario] { torture_service(server, scenario_named(scenario)); }});
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
  const std::vector<Job> jobs = all_jobs();
  for (int i = 1; i < count; ++i) {
    const std::string_view word = words[i];
    if (word == "--points" && i + 1 < count) {
      g_points = static_cast<uint32_t>(std::strtoul(words[++i], nullptr, 10));
      continue;
    }
    const size_t before = chosen.size();
    for (const Job &job : jobs) {
      if (word == "--list") std::printf("%s\n", job.name.c_str());
      if (word == job.name || word == job.group) chosen.push_back(job);
    }
    if (word == "--list") return 0;
    if (chosen.size() != before) continue;
    std::fputs("usage: sandbox -- torture [--points COUNT] [--list] [clients|servers|NAME...]\n",
               stderr);
    return 2;
  }
  if (chosen.empty()) chosen = jobs;

  // A buffer of our own, so that a line that the library prints is no allocation.
  static char line[BUFSIZ];
  std::setvbuf(stdout, line, _IOLBF, sizeof line);

  const auto attach = of_shim<Attach>(kAttach);
  if (attach == nullptr) return start_with_shim(words);
  const int fd = ::open(kPlanPath, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const int sized = ::ftruncate(fd, sizeof(Plan));
  void *memory = ::mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (sized != 0 || memory == MAP_FAILED) {
    std::perror("torture: the plan");
    return 1;
  }
  ::close(fd);
  g_plan = new (memory) Plan{};

  for (const Job &job : chosen) run(job);
  std::printf("%u failures injected, %u faults found\n", g_injected, g_faults);
  for (const auto &[call, times] : g_by_call) std::printf("  %-16s %u\n", call.c_str(), times);
  return g_faults == 0 ? 0 : 1;
}

}  // namespace

bool succeeded(int64_t status, std::initializer_list<int64_t> stated, const char *file, int line) {
  if (status == 0) return true;
  if (std::ranges::find(stated, status) != stated.end()) return false;
  char text[120];
  std::snprintf(text, sizeof text, "%s:%d gets the status 0x%llx, which is not stated", file, line,
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
