#include "dbus.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {
namespace {

constexpr char kSocket[] = "/var/run/bench_dbus";
constexpr char kAddress[] = "unix:path=/var/run/bench_dbus";
constexpr char kName[] = "org.example.Echo";
constexpr char kPath[] = "/org/example/Echo";

void check(int result, const char *what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
}

// The broker's policy: everybody may do everything.
void append_batch(sd_bus_message *m) {
  check(sd_bus_message_open_container(m, 'r', "bta(btbs)a(btssssuutt)a(btssssuutt)"), "batch");
  check(sd_bus_message_append(m, "bt", 1, uint64_t{1}), "connect");
  check(sd_bus_message_append(m, "a(btbs)", 1, 1, uint64_t{1}, 1, ""), "own");
  for (int direction = 0; direction < 2; ++direction) {
    check(sd_bus_message_append(m, "a(btssssuutt)", 1, 1, uint64_t{1}, "", "", "", "", 0u, 0u,
                                uint64_t{0}, UINT64_MAX),
          "send and receive");
  }
  check(sd_bus_message_close_container(m), "batch");
}

void append_policy(sd_bus_message *m) {
  constexpr char kPolicy[] =
      "(a(u(bta(btbs)a(btssssuutt)a(btssssuutt)))a(buu(bta(btbs)a(btssssuutt)a(btssssuutt)))a(ss)"
      "bs)";
  constexpr char kContents[] =
      "a(u(bta(btbs)a(btssssuutt)a(btssssuutt)))a(buu(bta(btbs)a(btssssuutt)a(btssssuutt)))a(ss)bs";
  check(sd_bus_message_open_container(m, 'v', kPolicy), "policy");
  check(sd_bus_message_open_container(m, 'r', kContents), "policy");
  check(sd_bus_message_open_container(m, 'a', "(u(bta(btbs)a(btssssuutt)a(btssssuutt)))"), "users");
  check(sd_bus_message_open_container(m, 'r', "u(bta(btbs)a(btssssuutt)a(btssssuutt))"), "users");
  check(sd_bus_message_append(m, "u", UINT32_MAX), "users");
  append_batch(m);
  check(sd_bus_message_close_container(m), "users");
  check(sd_bus_message_close_container(m), "users");
  check(sd_bus_message_append(m, "a(buu(bta(btbs)a(btssssuutt)a(btssssuutt)))", 0), "groups");
  check(sd_bus_message_append(m, "a(ss)bs", 0, 0, "session"), "rest of the policy");
  check(sd_bus_message_close_container(m), "policy");
  check(sd_bus_message_close_container(m), "policy");
}

int listen_on_socket() {
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, kSocket);
  ::unlink(kSocket);
  if (::bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
      ::listen(listener, 16) != 0) {
    throw std::runtime_error("cannot listen");
  }
  return listener;
}

pid_t run_broker(int controller) {
  const pid_t child = ::fork();
  if (child != 0) return child;
  if (controller == 3) {
    ::fcntl(3, F_SETFD, 0);
  } else {
    ::dup2(controller, 3);
  }
  ::execlp("dbus-broker", "dbus-broker", "--controller", "3", "--machine-id",
           "0123456789abcdef0123456789abcdef", "--max-bytes", "536870912", "--max-fds", "64",
           "--max-matches", "1024", "--max-objects", "1024", static_cast<char *>(nullptr));
  ::_exit(127);
}

// Makes the broker serve the socket. The returned bus must stay open: the broker ends with it.
sd_bus *control(int fd) {
  sd_bus *bus = nullptr;
  check(sd_bus_new(&bus), "sd_bus_new");
  check(sd_bus_set_fd(bus, fd, fd), "sd_bus_set_fd");
  check(sd_bus_start(bus), "sd_bus_start");
  sd_bus_message *m = nullptr;
  check(sd_bus_message_new_method_call(bus, &m, nullptr, "/org/bus1/DBus/Broker",
                                       "org.bus1.DBus.Broker", "AddListener"),
        "AddListener");
  check(sd_bus_message_append(m, "oh", "/org/bus1/DBus/Listener/0", listen_on_socket()),
        "listener");
  append_policy(m);
  check(sd_bus_call(bus, m, 0, nullptr, nullptr), "AddListener");
  sd_bus_message_unref(m);
  return bus;
}

sd_bus *connect() {
  sd_bus *bus = nullptr;
  check(sd_bus_new(&bus), "sd_bus_new");
  check(sd_bus_set_address(bus, kAddress), "sd_bus_set_address");
  check(sd_bus_set_bus_client(bus, 1), "sd_bus_set_bus_client");
  check(sd_bus_start(bus), "sd_bus_start");
  return bus;
}

// A broker, the processes that are its clients, and this process's own connection.
class Bus {
 public:
  Bus() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
      throw std::runtime_error("socketpair");
    }
    children_.push_back(run_broker(ends[1]));
    ::close(ends[1]);
    controller_ = control(ends[0]);
    own_ = connect();
  }
  Bus(const Bus &) = delete;
  Bus &operator=(const Bus &) = delete;
  ~Bus() {
    sd_bus_flush_close_unref(own_);
    sd_bus_flush_close_unref(controller_);
    for (const pid_t child : children_) {
      ::kill(child, SIGTERM);
      ::waitpid(child, nullptr, 0);
    }
  }

  sd_bus *get() const { return own_; }

  // Runs a client with a connection of its own, and returns when `set_up` has returned in it.
  template <typename SetUp>
  void run(SetUp set_up) {
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    const pid_t child = ::fork();
    if (child == 0) serve(ready[1], set_up);
    children_.push_back(child);
    ::close(ready[1]);
    char byte;
    const bool serves = ::read(ready[0], &byte, 1) == 1;
    ::close(ready[0]);
    if (!serves) throw std::runtime_error("a client does not start");
  }

 private:
  template <typename SetUp>
  [[noreturn]] static void serve(int ready, SetUp set_up) {
    try {
      sd_bus *bus = connect();
      set_up(bus);
      if (::write(ready, "", 1) != 1) ::_exit(1);
      for (;;) {
        const int result = sd_bus_process(bus, nullptr);
        if (result < 0) break;
        if (result == 0) sd_bus_wait(bus, UINT64_MAX);
      }
    } catch (const std::exception &) {
    }
    ::_exit(1);
  }

  std::vector<pid_t> children_;
  sd_bus *controller_;
  sd_bus *own_;
};

int echo(sd_bus_message *request, void * /*data*/, sd_bus_error * /*error*/) {
  const void *bytes;
  size_t size;
  int result = sd_bus_message_read_array(request, 'y', &bytes, &size);
  sd_bus_message *reply = nullptr;
  if (result >= 0) result = sd_bus_message_new_method_return(request, &reply);
  if (result >= 0) result = sd_bus_message_append_array(reply, 'y', bytes, size);
  if (result >= 0) result = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return result;
}

const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Echo", "ay", "ay", echo, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

class RoundTrip final : public DbusRoundTrip {
 public:
  RoundTrip() {
    bus_.run([](sd_bus *bus) {
      check(sd_bus_add_object_vtable(bus, nullptr, kPath, kName, kVtable, nullptr), "vtable");
      check(sd_bus_request_name(bus, kName, 0), "request_name");
    });
  }

  double once(size_t size) override {
    bytes_.resize(size, 'x');
    const auto start = std::chrono::steady_clock::now();
    sd_bus_message *request = nullptr;
    sd_bus_message *reply = nullptr;
    check(sd_bus_message_new_method_call(bus_.get(), &request, kName, kPath, kName, "Echo"),
          "request");
    check(sd_bus_message_append_array(request, 'y', bytes_.data(), size), "request");
    check(sd_bus_call(bus_.get(), request, 0, nullptr, &reply), "sd_bus_call");
    const void *answered;
    size_t answered_size;
    check(sd_bus_message_read_array(reply, 'y', &answered, &answered_size), "reply");
    const auto took = std::chrono::steady_clock::now() - start;
    sd_bus_message_unref(request);
    sd_bus_message_unref(reply);
    if (answered_size != size) throw std::runtime_error("the answer is not the request");
    return std::chrono::duration<double, std::micro>(took).count();
  }

 private:
  Bus bus_;
  std::vector<char> bytes_;
};

int g_burst;
int g_confirmations;

int count(sd_bus_message *signal, void * /*data*/, sd_bus_error * /*error*/) {
  static int received;
  const void *bytes;
  size_t size;
  const int result = sd_bus_message_read_array(signal, 'y', &bytes, &size);
  if (result < 0 || ++received < g_burst) return result;
  received = 0;
  return ::write(g_confirmations, "", 1) == 1 ? 0 : -errno;
}

class FanOut final : public DbusFanOut {
 public:
  explicit FanOut(int subscribers) {
    for (int i = 0; i < subscribers; ++i) {
      bus_.run([](sd_bus *bus) {
        check(sd_bus_match_signal(bus, nullptr, nullptr, kPath, kName, "Event", count, nullptr),
              "match");
      });
    }
  }

  void send(int count, size_t size) override {
    const std::vector<char> bytes(size, 'x');
    for (int i = 0; i < count; ++i) {
      sd_bus_message *signal = nullptr;
      check(sd_bus_message_new_signal(bus_.get(), &signal, kPath, kName, "Event"), "signal");
      check(sd_bus_message_append_array(signal, 'y', bytes.data(), size), "signal");
      check(sd_bus_send(bus_.get(), signal, nullptr), "sd_bus_send");
      sd_bus_message_unref(signal);
    }
    check(sd_bus_flush(bus_.get()), "sd_bus_flush");
  }

 private:
  Bus bus_;
};

template <typename Side, typename... Arguments>
std::unique_ptr<Side> try_to_start(Arguments... arguments) {
  try {
    return std::make_unique<Side>(arguments...);
  } catch (const std::exception &error) {
    std::printf("no sd-bus figures: %s\n", error.what());
    return nullptr;
  }
}

}  // namespace

std::unique_ptr<DbusRoundTrip> DbusRoundTrip::start() {
  return try_to_start<RoundTrip>();
}

std::unique_ptr<DbusFanOut> DbusFanOut::start(int subscribers, int burst, int confirmations) {
  g_burst = burst;
  g_confirmations = confirmations;
  return try_to_start<FanOut>(subscribers);
}

}  // namespace bench
