// Messages between processes: the library through msgsvr, beside the raw limit of the same machine
// and, if installed, beside sd-bus over dbus-broker. The raw side has three processes that only
// read, forward and write the same bytes on Unix sockets, with one select() before each read.
// Everything runs on one processor, because otherwise the figures depend on where the scheduler
// puts the processes. The sides take turns within each series, so that all see the same machine.
//
// Usage: ipc_bench [SCALE]; SCALE multiplies the number of measurements (default 1).

#include <arpa/inet.h>
#include <fcntl.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "dbus.h"
#include "msgapi/loop.h"
#include "msgapi/msg.h"
#include "msgapi/restful.h"

namespace {

constexpr uint32_t kEchoType = 0x100;
constexpr uint32_t kOneWayType = 0x101;
constexpr int kRounds = 20;
constexpr size_t kRawBuffer = 1 << 18;
constexpr uint16_t kHttpPort = 8080;
constexpr uint16_t kBareHttpPort = 8081;
constexpr char kHttpText[] = R"({"name": "gateway", "up": true})";

double g_scale = 1;

using Clock = std::chrono::steady_clock;

double microseconds_since(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

[[noreturn]] void fail(const char *what) {
  std::perror(what);
  std::exit(1);
}

void check(bool fine, const char *what) {
  if (!fine) fail(what);
}

int scaled(int count) {
  return std::max(1, static_cast<int>(count * g_scale));
}

void pin_to_one_processor() {
  cpu_set_t allowed;
  check(::sched_getaffinity(0, sizeof allowed, &allowed) == 0, "sched_getaffinity");
  int last = 0;
  for (int i = 0; i < CPU_SETSIZE; ++i) {
    if (CPU_ISSET(i, &allowed)) last = i;
  }
  CPU_ZERO(&allowed);
  CPU_SET(last, &allowed);
  check(::sched_setaffinity(0, sizeof allowed, &allowed) == 0, "sched_setaffinity");
}

// Child processes that end with a measurement.
class Processes {
 public:
  Processes() = default;
  Processes(const Processes &) = delete;
  Processes &operator=(const Processes &) = delete;
  ~Processes() {
    for (const pid_t child : children_) {
      ::kill(child, SIGTERM);
      ::waitpid(child, nullptr, 0);
    }
  }

  void run(const std::function<void()> &procedure) {
    const pid_t child = ::fork();
    check(child >= 0, "fork");
    if (child == 0) {
      procedure();
      ::_exit(0);
    }
    children_.push_back(child);
  }

 private:
  std::vector<pid_t> children_;
};

// ---- Statistics ----

struct Series {
  std::vector<double> values;

  double quantile(double q) {
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(q * static_cast<double>(values.size() - 1))];
  }
  double median() { return quantile(0.5); }
};

// ---- The raw side ----

void select_readable(std::initializer_list<int> fds, fd_set *ready) {
  FD_ZERO(ready);
  for (const int fd : fds) FD_SET(fd, ready);
  check(::select(std::max(fds) + 1, ready, nullptr, nullptr, nullptr) > 0, "select");
}

void write_all(int fd, const char *data, size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(fd, data, size);
    if (written <= 0) ::_exit(0);
    data += written;
    size -= static_cast<size_t>(written);
  }
}

// One select() and one read.
size_t read_some(int fd, char *data, size_t size) {
  fd_set ready;
  select_readable({fd}, &ready);
  const ssize_t count = ::read(fd, data, size);
  if (count <= 0) ::_exit(0);
  return static_cast<size_t>(count);
}

void read_all(int fd, char *data, size_t size) {
  while (size > 0) {
    const size_t count = read_some(fd, data, size);
    data += count;
    size -= count;
  }
}

struct Channel {
  Channel() { check(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair"); }
  int ends[2];
};

// Forwards everything between the two descriptors, in the pieces in which it comes.
void forward(int left, int right) {
  std::vector<char> buffer(kRawBuffer);
  for (;;) {
    fd_set ready;
    select_readable({left, right}, &ready);
    for (const auto &[from, to] : {std::pair(left, right), std::pair(right, left)}) {
      if (!FD_ISSET(from, &ready)) continue;
      const ssize_t count = ::read(from, buffer.data(), buffer.size());
      if (count <= 0) ::_exit(0);
      write_all(to, buffer.data(), static_cast<size_t>(count));
    }
  }
}

class RawRoundTrip {
 public:
  explicit RawRoundTrip(size_t size) : message_(size, 'x') {
    Channel near;
    Channel far;
    processes_.run([=] { forward(near.ends[1], far.ends[0]); });
    processes_.run([=, this] {
      for (;;) {
        read_all(far.ends[1], message_.data(), message_.size());
        write_all(far.ends[1], message_.data(), message_.size());
      }
    });
    fd_ = near.ends[0];
  }

  double once() {
    const auto start = Clock::now();
    write_all(fd_, message_.data(), message_.size());
    read_all(fd_, message_.data(), message_.size());
    return microseconds_since(start);
  }

 private:
  std::vector<char> message_;
  int fd_;
  Processes processes_;
};

// Messages of `size` bytes in one direction. The reader takes them one by one and confirms the
// last.
class RawOneWay {
 public:
  RawOneWay(size_t size, int count) : message_(size, 'x'), count_(count) {
    Channel near;
    Channel far;
    processes_.run([=] { forward(near.ends[1], far.ends[0]); });
    processes_.run([=, this] {
      for (int received = 0;; ++received) {
        if (received == count_) {
          write_all(far.ends[1], "", 1);
          received = 0;
        }
        read_all(far.ends[1], message_.data(), message_.size());
      }
    });
    fd_ = near.ends[0];
  }

  double messages_per_second() {
    const auto start = Clock::now();
    for (int i = 0; i < count_; ++i) write_all(fd_, message_.data(), message_.size());
    char confirmation;
    read_all(fd_, &confirmation, 1);
    return count_ / microseconds_since(start) * 1e6;
  }

 private:
  std::vector<char> message_;
  int count_;
  int fd_;
  Processes processes_;
};

// The same to many readers: a forwarder repeats to each what it reads. With `direct` the sender
// itself writes every message to each.
class RawFanOut {
 public:
  RawFanOut(size_t size, int count, int readers, bool direct)
      : message_(size, 'x'), count_(count), far_(static_cast<size_t>(readers)), direct_(direct) {
    if (!direct) {
      processes_.run([this] {
        std::vector<char> buffer(kRawBuffer);
        for (;;) {
          const size_t got = read_some(near_.ends[1], buffer.data(), buffer.size());
          write_to_all(buffer.data(), got);
        }
      });
    }
    for (const Channel &channel : far_) {
      processes_.run([&, this] {
        for (;;) {
          for (int i = 0; i < count_; ++i) {
            read_all(channel.ends[1], message_.data(), message_.size());
          }
          write_all(confirmations_.ends[1], "", 1);
        }
      });
    }
  }

  double events_per_second() {
    const auto start = Clock::now();
    for (int i = 0; i < count_; ++i) {
      if (direct_) {
        write_to_all(message_.data(), message_.size());
      } else {
        write_all(near_.ends[0], message_.data(), message_.size());
      }
    }
    std::vector<char> all(far_.size());
    read_all(confirmations_.ends[0], all.data(), all.size());
    return count_ / microseconds_since(start) * 1e6;
  }

 private:
  void write_to_all(const char *data, size_t size) {
    for (const Channel &channel : far_) write_all(channel.ends[0], data, size);
  }

  std::vector<char> message_;
  int count_;
  Channel near_;
  std::vector<Channel> far_;
  Channel confirmations_;
  bool direct_;
  Processes processes_;
};

// ---- The library's side ----

using Options = std::vector<std::string>;

void start_server(Processes *processes, const Options &options = {}) {
  const char *bin = std::getenv("MSGAPI_BIN");
  Options words = {std::string(bin == nullptr ? "." : bin) + "/msgsvr", "--queue", "8388608",
                   "--http", "127.0.0.1:8080"};
  words.insert(words.end(), options.begin(), options.end());
  std::vector<char *> arguments;
  for (std::string &word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  processes->run([&] {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) ::_exit(1);
    if (std::freopen("/dev/null", "w", stderr) == nullptr) ::_exit(1);
    ::execv(arguments.front(), arguments.data());
    ::_exit(1);
  });
  for (int attempt = 0; ::access(ORP_MSG_SERVER_PATH, F_OK) != 0; ++attempt) {
    check(attempt < 500, "msgsvr does not start (MSGAPI_BIN?)");
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void connect_as(const char *name) {
  if (ORP_MSG_Init(name) != ORP_OK || g_stMsgCtx.slSocket < 0) fail("ORP_MSG_Init");
}

// Starts an application that serves on its event loop. Returns when the server knows it.
void serve_as(const std::string &name, Processes *processes, const std::function<void()> &set_up) {
  Channel ready;
  processes->run([&] {
    ORP_MSG_Destroy();  // the parent's connection
    ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
    connect_as(name.c_str());
    set_up();
    ORP_MSG_RegisterMsgProc(ORP_MSG_DefaultMsgProc);
    write_all(ready.ends[1], "", 1);
    ORP_MSG_GetAndDispatch();
  });
  char byte;
  check(::read(ready.ends[0], &byte, 1) == 1, "an application does not start");
  ::close(ready.ends[0]);
  ::close(ready.ends[1]);
}

// Sends the request back as its own response, without copying, like the raw side.
void echo(ORP_MSG_HEADER_ST *message) {
  std::memcpy(message->aucRecvApp, message->aucSendApp, sizeof message->aucRecvApp);
  if (ORP_MSG_Send(message) != ORP_OK) fail("echo");
}

class Message {
 public:
  Message(const char *to, uint32_t type, size_t body_size)
      : block_(ORP_MSG_GetMsgHead(ORP_MSG_GetMsgBlock(static_cast<uint32_t>(body_size)))) {
    ORP_MSG_SimpleBuilder(block_, to, type, 0);
    block_->ulDataLen = static_cast<uint32_t>(body_size);
    std::memset(block_ + 1, 'x', body_size);
  }
  Message(const Message &) = delete;
  Message &operator=(const Message &) = delete;
  ~Message() { std::free(block_); }
  ORP_MSG_HEADER_ST *get() { return block_; }

 private:
  ORP_MSG_HEADER_ST *block_;
};

double library_round_trip(Message *request) {
  const auto start = Clock::now();
  ORP_MSG_HEADER_ST *response;
  if (ORP_MSG_SendAndRecv(request->get(), &response, 0) != ORP_OK) fail("ORP_MSG_SendAndRecv");
  const double took = microseconds_since(start);
  if (response->ulDataLen != request->get()->ulDataLen) fail("the answer is not the request");
  std::free(response);
  return took;
}

// Counts one-way messages and events. Confirms whenever it has got a whole burst.
int g_burst;
int g_confirmations;
void count(ORP_MSG_HEADER_ST * /*message*/) {
  static int received;
  if (++received < g_burst) return;
  received = 0;
  write_all(g_confirmations, "", 1);
}

// Sends a burst and waits until `readers` applications have counted all of it.
double library_burst(Message *message, int burst, size_t readers, int confirmations) {
  const auto start = Clock::now();
  for (int i = 0; i < burst; ++i) {
    if (ORP_MSG_Send(message->get()) != ORP_OK) fail("ORP_MSG_Send");
  }
  std::vector<char> all(readers);
  read_all(confirmations, all.data(), all.size());
  return burst / microseconds_since(start) * 1e6;
}

// ---- The tables ----

void print_round_trips() {
  struct Size {
    size_t body;
    int per_round;
    const char *aim;
  };
  constexpr Size kSizes[] = {
      {0, 1000, "1.15"}, {256, 1000, "1.25"}, {2048, 500, ""}, {65536, 200, ""}, {1048576, 20, ""}};
  Processes processes;
  serve_as("echo", &processes, [] { ORP_MSG_RegMsgProc(kEchoType, echo, 0, nullptr); });

#ifdef HAVE_LIBSYSTEMD
  const auto dbus = bench::DbusRoundTrip::start();
#else
  const std::unique_ptr<bench::DbusRoundTrip> dbus;
#endif

  std::printf("\nRequest and response (us)\n");
  std::printf("%10s %10s %10s %10s %10s %7s %5s %10s\n", "body", "raw p50", "raw p99", "p50", "p99",
              "ratio", "aim", "sd-bus p50");
  for (const Size &size : kSizes) {
    RawRoundTrip raw(ORP_MSG_HEADER_SIZE + size.body);
    Message request("echo", kEchoType, size.body);
    Series raw_times;
    Series times;
    Series dbus_times;
    for (int i = 0; i < size.per_round; ++i) {
      raw.once();
      library_round_trip(&request);
      if (dbus) dbus->once(size.body);
    }
    for (int round = 0; round < kRounds; ++round) {
      for (int i = 0; i < scaled(size.per_round); ++i) raw_times.values.push_back(raw.once());
      for (int i = 0; i < scaled(size.per_round); ++i) {
        times.values.push_back(library_round_trip(&request));
      }
      for (int i = 0; dbus && i < scaled(size.per_round); ++i) {
        dbus_times.values.push_back(dbus->once(size.body));
      }
    }
    std::printf("%10zu %10.1f %10.1f %10.1f %10.1f %7.2f %5s", size.body, raw_times.median(),
                raw_times.quantile(0.99), times.median(), times.quantile(0.99),
                times.median() / raw_times.median(), size.aim);
    if (dbus) std::printf(" %10.1f", dbus_times.median());
    std::printf("\n");
  }
}

void print_one_way() {
  constexpr int kBurst = 20000;
  std::printf("\nOne way (messages/s)\n");
  std::printf("%10s %10s %10s %7s\n", "bytes", "raw", "library", "ratio");
  for (const size_t size : {size_t{40}, size_t{256}}) {
    Processes processes;
    Channel confirmations;
    g_burst = kBurst;
    g_confirmations = confirmations.ends[1];
    serve_as("sink", &processes, [] { ORP_MSG_RegMsgProc(kOneWayType, count, 0, nullptr); });
    RawOneWay raw(size, kBurst);
    Message message("sink", kOneWayType, size - ORP_MSG_HEADER_SIZE);
    Series raw_rates;
    Series rates;
    for (int round = 0; round < scaled(kRounds); ++round) {
      raw_rates.values.push_back(raw.messages_per_second());
      rates.values.push_back(library_burst(&message, kBurst, 1, confirmations.ends[0]));
    }
    std::printf("%10zu %10.0f %10.0f %7.2f\n", size, raw_rates.median(), rates.median(),
                rates.median() / raw_rates.median());
  }
}

void print_fan_out() {
  constexpr int kBurst = 2000;
  constexpr size_t kBody = 256;
  constexpr size_t kSize = ORP_MSG_HEADER_SIZE + kBody;
  std::printf("\nEvents of %zu bytes to all subscribers (events/s)\n", kBody);
  std::printf("%11s %10s %10s %10s %7s %10s\n", "subscribers", "raw", "raw direct", "library",
              "ratio", "sd-bus");
  for (const int subscribers : {1, 10}) {
    Processes processes;
    Channel confirmations;
    g_burst = kBurst;
    g_confirmations = confirmations.ends[1];
    for (int i = 0; i < subscribers; ++i) {
      serve_as("sub" + std::to_string(i), &processes, [] {
        ORP_MSG_RegMsgProc(ORP_MSG_EVENT_TESSEL, count, 0, nullptr);
        ORP_MSG_SendSimpleMsg(nullptr, ORP_MSG_SUBSCRIBE, ORP_MSG_EVENT_TESSEL);
        uint32_t processes_of_that_name;  // an answer says that the server has got this far
        processes_of_that_name = ORP_MSG_GetNumOfProcesses("sink");
        (void)processes_of_that_name;
      });
    }
    RawFanOut raw(kSize, kBurst, subscribers, false);
    RawFanOut direct(kSize, kBurst, subscribers, true);
#ifdef HAVE_LIBSYSTEMD
    const auto dbus = bench::DbusFanOut::start(subscribers, kBurst, g_confirmations);
#else
    const std::unique_ptr<bench::DbusFanOut> dbus;
#endif
    Message event("", ORP_MSG_EVENT_TESSEL, kBody);
    std::vector<char> all(static_cast<size_t>(subscribers));
    Series raw_rates;
    Series direct_rates;
    Series rates;
    Series dbus_rates;
    for (int round = 0; round < scaled(kRounds); ++round) {
      raw_rates.values.push_back(raw.events_per_second());
      direct_rates.values.push_back(direct.events_per_second());
      rates.values.push_back(library_burst(&event, kBurst, all.size(), confirmations.ends[0]));
      if (!dbus) continue;
      const auto start = Clock::now();
      dbus->send(kBurst, kBody);
      read_all(confirmations.ends[0], all.data(), all.size());
      dbus_rates.values.push_back(kBurst / microseconds_since(start) * 1e6);
    }
    std::printf("%11d %10.0f %10.0f %10.0f %7.2f", subscribers, raw_rates.median(),
                direct_rates.median(), rates.median(), rates.median() / direct_rates.median());
    if (dbus) std::printf(" %10.0f", dbus_rates.median());
    std::printf("\n");
  }
}

// Sends GETs on one connection and waits for each whole answer.
class HttpClient {
 public:
  explicit HttpClient(uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    check(::connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0, "connect");
  }
  HttpClient(const HttpClient &) = delete;
  HttpClient &operator=(const HttpClient &) = delete;
  ~HttpClient() { ::close(fd_); }

  double once() {
    constexpr std::string_view kRequest = "GET /dev/info HTTP/1.1\r\nHost: localhost\r\n\r\n";
    const auto start = Clock::now();
    write_all(fd_, kRequest.data(), kRequest.size());
    size_t have = 0;
    while (std::string_view(answer_, have).find(kHttpText) == std::string_view::npos) {
      check(have < sizeof answer_, "the answer is not what was asked for");
      have += read_some(fd_, answer_ + have, sizeof answer_ - have);
    }
    return microseconds_since(start);
  }

 private:
  int fd_;
  char answer_[2048];
};

uint32_t tell_info(const ORP_MSG_RESTFUL_REQ_ST * /*request*/, char **response) {
  *response = ::strdup(kHttpText);
  return 0;
}

MHD_Result answer_at_once(void * /*data*/, MHD_Connection *connection, const char * /*url*/,
                          const char * /*method*/, const char * /*version*/,
                          const char * /*upload*/, size_t * /*upload_size*/, void **state) {
  // The first call comes before the request is read; an answer then would end the connection.
  if (std::exchange(*state, connection) == nullptr) return MHD_YES;
  MHD_Response *response = ::MHD_create_response_from_buffer(
      std::strlen(kHttpText), const_cast<char *>(kHttpText), MHD_RESPMEM_PERSISTENT);
  ::MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "application/json");
  const MHD_Result result = ::MHD_queue_response(connection, MHD_HTTP_OK, response);
  ::MHD_destroy_response(response);
  return result;
}

// An application's answer by HTTP, beside an answer that the same HTTP library gives by itself.
void print_http() {
  constexpr int kPerRound = 500;
  Processes processes;
  serve_as("status", &processes, [] {
    static const ORP_MSG_RESTFUL_ROW_ST kHandlers[] = {{"info", tell_info}, {nullptr, nullptr}};
    ORP_MSG_RegRestfulProc("/dev", kHandlers);
    if (ORP_MSG_GetNumOfProcesses("status") != 1) fail("not registered");
  });
  Channel ready;
  processes.run([&] {
    check(::MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD, kBareHttpPort, nullptr, nullptr,
                             answer_at_once, nullptr, MHD_OPTION_END) != nullptr,
          "MHD_start_daemon");
    write_all(ready.ends[1], "", 1);
    for (;;) ::pause();
  });
  char byte;
  read_all(ready.ends[0], &byte, 1);

  HttpClient bare(kBareHttpPort);
  HttpClient client(kHttpPort);
  Series bare_times;
  Series times;
  for (int round = 0; round < kRounds; ++round) {
    for (int i = 0; i < scaled(kPerRound); ++i) bare_times.values.push_back(bare.once());
    for (int i = 0; i < scaled(kPerRound); ++i) times.values.push_back(client.once());
  }
  std::printf("\nA GET that an application answers (us)\n%21s %10s %7s\n", "HTTP library alone",
              "p50", "ratio");
  std::printf("%21.1f %10.1f %7.2f\n", bare_times.median(), times.median(),
              times.median() / bare_times.median());
}

// The median round trip through a new server with these options.
double median_round_trip(const Options &options) {
  constexpr int kRequests = 2000;
  Processes processes;
  start_server(&processes, options);
  connect_as("client");
  serve_as("echo", &processes, [] { ORP_MSG_RegMsgProc(kEchoType, echo, 0, nullptr); });
  Message request("echo", kEchoType, 0);
  for (int i = 0; i < kRequests / 4; ++i) library_round_trip(&request);
  Series times;
  for (int i = 0; i < kRequests; ++i) times.values.push_back(library_round_trip(&request));
  return times.median();
}

// The same in a new process, which has no connection from an earlier measurement.
double median_in_new_process(const Options &options) {
  Channel result;
  Processes measurement;
  measurement.run([&] {
    const double median = median_round_trip(options);
    write_all(result.ends[1], reinterpret_cast<const char *>(&median), sizeof median);
  });
  ::close(result.ends[1]);  // so that the end of a child that fails ends the read
  double median;
  read_all(result.ends[0], reinterpret_cast<char *>(&median), sizeof median);
  ::close(result.ends[0]);
  return median;
}

// Round trips through two servers that differ in one option.
void print_pair(const char *what, const Options &off, const Options &on) {
  const Options *options[] = {&off, &on};
  Series times[2];
  Series ratios;
  for (int round = 0; round < scaled(kRounds); ++round) {
    // The one that comes first in this pair comes second in the next.
    for (const bool which : {round % 2 == 0, round % 2 != 0}) {
      times[which].values.push_back(median_in_new_process(*options[which]));
    }
    ratios.values.push_back(times[1].values.back() / times[0].values.back());
  }
  std::printf("\nRequest and response with %s (us)\n%10s %10s %7s\n", what, "off", "on", "ratio");
  std::printf("%10.2f %10.2f %7.3f\n", times[0].median(), times[1].median(), ratios.median());
}

// A policy of 105 rules: 100 deny other types to another user, then the rest allows everything.
std::string write_policy() {
  constexpr const char *kPath = "/var/bench_policy.json";
  constexpr int kRules = 100;
  std::ofstream file(kPath);
  file << R"({"default": "deny", "rules": [)";
  for (int i = 0; i < kRules; ++i) {
    file << R"({"deny": ")" << (i % 2 == 0 ? "send" : "receive") << R"(", "types": "0x7)" << 100 + i
         << R"(", "user": 12345},)" << '\n';
  }
  for (const char *action : {"own", "send", "receive", "speak-for"}) {
    file << R"({"allow": ")" << action << R"("},)" << '\n';
  }
  file << R"({"allow": "service"}]})";
  return kPath;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc > 1) g_scale = std::atof(argv[1]);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  pin_to_one_processor();
  std::signal(SIGPIPE, SIG_IGN);

  // Measured before this process has a server and a connection.
  print_pair("the flight recorder", {"--flight", "0"}, {});
  print_pair("a policy of 105 rules", {}, {"--policy", write_policy()});

  Processes server;
  start_server(&server);
  connect_as("client");
  print_round_trips();
  print_one_way();
  print_fan_out();
  print_http();
  return 0;
}
