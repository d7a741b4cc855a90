#include "servers/msgbridge/broker.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "support/network.h"
#include "support/soak.h"

namespace test {
namespace {

using std::chrono::milliseconds;

int connect_to(uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = loopback(port);
  if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return fd;
  ::close(fd);
  return -1;
}

// Closes with a reset, so that everything on its way is lost.
void reset(int fd) {
  const linger now{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  ::close(fd);
}

std::string take(char *text) {
  std::string copy(text == nullptr ? "" : text);
  std::free(text);
  return copy;
}

}  // namespace

std::string broker_program() {
  constexpr const char *kPath = "/usr/sbin/mosquitto";
  return ::access(kPath, X_OK) == 0 ? kPath : "";
}

// ---- Broker ----

Broker::Broker(uint16_t port, const std::string &settings)
    : port_(port), config_("/var/broker" + std::to_string(port) + ".conf") {
  std::ofstream(config_) << "user root\nmax_queued_messages 0\nlistener " << port << " 127.0.0.1\n"
                         << settings;
  start();
}

void Broker::start() {
  const std::string program = broker_program();
  pid_ = ::fork();
  if (pid_ == 0) {
    const int log = ::open("/var/broker.log", O_WRONLY | O_CREAT | O_APPEND, 0644);
    ::dup2(log, STDOUT_FILENO);
    ::dup2(log, STDERR_FILENO);
    ::execl(program.c_str(), program.c_str(), "-c", config_.c_str(), nullptr);
    ::_exit(127);
  }
  for (int tries = 0; tries < kPatience_ms / 10; ++tries) {
    if (const int fd = connect_to(port_); fd >= 0) {
      ::close(fd);
      return;
    }
    std::this_thread::sleep_for(milliseconds(10));
  }
  FAIL() << "the broker does not start";
}

void Broker::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

// ---- Proxy ----

Proxy::Proxy(uint16_t port, uint16_t target)
    : target_(target), listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const sockaddr_in address = loopback(port);
  const int on = 1;
  ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  EXPECT_EQ(0, ::bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address));
  EXPECT_EQ(0, ::listen(listener_, 16));
  thread_ = std::thread([this] { run(); });
}

Proxy::~Proxy() {
  stop_ = true;
  thread_.join();
  ::close(listener_);
}

void Proxy::cut_after(std::function<size_t()> bytes) {
  const std::lock_guard<std::mutex> hold(lock_);
  budget_ = std::move(bytes);
}

void Proxy::run() {
  while (!stop_) {
    pollfd entry{.fd = listener_, .events = POLLIN, .revents = 0};
    if (::poll(&entry, 1, 10) != 1) continue;
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    if (open_) carry(client);
    reset(client);
  }
}

void Proxy::carry(int client) {
  const int server = connect_to(target_);
  if (server < 0) return;
  ++connections_;
  size_t left = 0;
  {
    const std::lock_guard<std::mutex> hold(lock_);
    if (budget_) left = budget_();
  }
  const bool limited = left > 0;
  std::array<char, 4096> bytes;
  bool going = true;
  while (going && open_ && !stop_) {
    pollfd entries[] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
    if (::poll(entries, 2, 10) <= 0) continue;
    for (const pollfd &entry : entries) {
      if (entry.revents == 0) continue;
      const ssize_t got = ::recv(entry.fd, bytes.data(), bytes.size(), 0);
      if (got <= 0) {
        going = false;
        break;
      }
      auto size = static_cast<size_t>(got);
      if (entry.fd == server && limited) {
        size = std::min(size, left);
        left -= size;
        going = left > 0;
      }
      if (hold_) continue;
      if (::send(entry.fd == client ? server : client, bytes.data(), size, MSG_NOSIGNAL) < 0) {
        going = false;
      }
    }
  }
  reset(server);
}

// ---- Record ----

void Record::add(Received received) {
  const std::lock_guard<std::mutex> hold(lock_);
  received_.push_back(std::move(received));
  changed_.notify_all();
}

bool Record::wait(const std::function<bool(const std::vector<Received> &)> &is_there,
                  std::chrono::seconds patience) {
  std::unique_lock<std::mutex> hold(lock_);
  return changed_.wait_for(hold, patience * kSlowness, [&] { return is_there(received_); });
}

bool Record::wait_for(const std::string &topic, const std::string &part) {
  return wait([&](const std::vector<Received> &received) {
    return std::ranges::any_of(received, [&](const Received &each) {
      return each.topic == topic && each.payload.find(part) != std::string::npos;
    });
  });
}

std::vector<Received> Record::all() {
  const std::lock_guard<std::mutex> hold(lock_);
  return received_;
}

// ---- Listener ----

Listener::Listener(uint16_t port, const std::string &topics, Record *record) : record_(record) {
  mosquitto_lib_init();
  client_ = mosquitto_new(nullptr, true, this);
  mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_subscribe_v5_callback_set(
      client_, [](mosquitto *, void *self, int, int, const int *, const mosquitto_property *) {
        static_cast<Listener *>(self)->subscribed_ = true;
      });
  mosquitto_disconnect_v5_callback_set(
      client_, [](mosquitto *, void *self, int, const mosquitto_property *) {
        static_cast<Listener *>(self)->ended_ = true;
      });
  mosquitto_message_v5_callback_set(client_, [](mosquitto *, void *self,
                                                const mosquitto_message *message,
                                                const mosquitto_property *properties) {
    Received received{.topic = message->topic,
                      .payload = {static_cast<const char *>(message->payload),
                                  static_cast<size_t>(message->payloadlen)},
                      .retained = message->retain};
    char *name = nullptr, *value = nullptr;
    const mosquitto_property *at = properties;
    for (bool again = false; (at = mosquitto_property_read_string_pair(
                                  at, MQTT_PROP_USER_PROPERTY, &name, &value, again)) != nullptr;
         again = true) {
      const std::string key = take(name), text = take(value);
      if (key == "stream") received.stream = text;
      if (key == "sequence") received.sequence = std::stoull(text);
    }
    void *bytes = nullptr;
    uint16_t size = 0;
    if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &bytes, &size,
                                       false) != nullptr) {
      received.correlation.assign(static_cast<const char *>(bytes), size);
      std::free(bytes);
    }
    static_cast<Listener *>(self)->record_->add(std::move(received));
  });
  EXPECT_EQ(0, mosquitto_connect_bind_v5(client_, "127.0.0.1", port, 60, nullptr, nullptr));
  EXPECT_EQ(0, mosquitto_subscribe_v5(client_, nullptr, topics.c_str(), 0, 0, nullptr));
  EXPECT_EQ(0, mosquitto_loop_start(client_));
  for (int tries = 0; tries < kPatience_ms / 5 && !subscribed_; ++tries) {
    std::this_thread::sleep_for(milliseconds(5));
  }
  EXPECT_TRUE(subscribed_);
}

Listener::~Listener() {
  mosquitto_disconnect_v5(client_, 0, nullptr);
  mosquitto_loop_stop(client_, true);
  mosquitto_destroy(client_);
}

void Listener::publish(const std::string &topic, const std::string &payload,
                       const std::string &answer_to, const std::string &correlation) {
  mosquitto_property *properties = nullptr;
  if (!answer_to.empty()) {
    mosquitto_property_add_string(&properties, MQTT_PROP_RESPONSE_TOPIC, answer_to.c_str());
  }
  if (!correlation.empty()) {
    mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, correlation.data(),
                                  static_cast<uint16_t>(correlation.size()));
  }
  EXPECT_EQ(0,
            mosquitto_publish_v5(client_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                                 payload.data(), 1, false, properties));
  mosquitto_property_free_all(&properties);
}

void Listener::publish_as(const std::string &topic, const std::string &payload,
                          const std::string &stream, uint64_t sequence, bool retain) {
  mosquitto_property *properties = nullptr;
  const std::string number = std::to_string(sequence);
  mosquitto_property_add_string_pair(&properties, MQTT_PROP_USER_PROPERTY, "stream",
                                     stream.c_str());
  mosquitto_property_add_string_pair(&properties, MQTT_PROP_USER_PROPERTY, "sequence",
                                     number.c_str());
  EXPECT_EQ(0,
            mosquitto_publish_v5(client_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                                 payload.data(), 1, retain, properties));
  mosquitto_property_free_all(&properties);
}

void Listener::publish_retained(const std::string &topic, const std::string &payload) {
  EXPECT_EQ(0,
            mosquitto_publish_v5(client_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                                 payload.data(), 1, true, nullptr));
}

void Listener::wait_for_end() const {
  for (int tries = 0; tries < kPatience_ms / 5 && !ended_; ++tries) {
    std::this_thread::sleep_for(milliseconds(5));
  }
  EXPECT_TRUE(ended_);
}

// ---- Account ----

Account account_of(const std::vector<Received> &received, uint64_t last) {
  Account account;
  std::set<uint64_t> noticed;
  uint64_t newest = 0;
  for (const Received &each : received) {
    if (each.topic.ends_with("/lost")) {
      const auto notice = nlohmann::json::parse(each.payload);
      for (uint64_t i = notice["first"]; i <= notice["last"]; ++i) noticed.insert(i);
      continue;
    }
    if (each.topic.find("/event/") == std::string::npos) continue;
    if (!account.payloads.emplace(each.sequence, each.payload).second) {
      ++account.twice;
      continue;
    }
    account.in_order &= each.sequence > newest && each.sequence <= last;
    newest = each.sequence;
  }
  account.heard = account.payloads.size();
  for (uint64_t i = 1; i <= last; ++i) {
    if (account.payloads.contains(i)) continue;
    if (noticed.contains(i)) {
      ++account.given_up;
    } else {
      ++account.missing;
    }
  }
  return account;
}

}  // namespace test
