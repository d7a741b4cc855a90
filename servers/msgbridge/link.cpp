#include "msgbridge/link.h"

#include <mqtt_protocol.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "msgbridge/backoff.h"
#include "msgbridge/guard.h"
#include "msgbridge/say.h"

namespace msgbridge {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// For everything together: looking up the name, connecting, TLS, and the broker's answer.
constexpr uint32_t kAttemptTime_ms = 20'000;
// Threads that may wait for the system at once, those of attempts that were given up included.
constexpr int kMostThreads = 4;
// A connection that has lasted longer counts as a success: the waiting times begin anew.
constexpr int64_t kLasting_ms = 10'000;
constexpr uint32_t kKeepAlivePeriod_ms = 1000;
constexpr uint32_t kHandshakePeriod_ms = 20;
constexpr milliseconds kFarewellTime{1000};
constexpr uint16_t kReceiveMaximum = 32;
// The broker drops longer packets (MQTT 5, 3.1.2.11.4). Requests that the bridge refuses with a
// text are below this limit.
constexpr uint32_t kLargestPacket = 1 << 20;

constexpr size_t kLongestTrouble = 500;

// Reads of TLS in one turn of the loop, so that the rest gets its turn.
constexpr int kMostReads = 64;

std::atomic<int> g_threads = 0;

// Counts a thread from before its start to its end.
struct Counted {
  Counted() { ++g_threads; }
  ~Counted() { --g_threads; }
  Counted(const Counted &) = delete;
  Counted &operator=(const Counted &) = delete;
};

int64_t now_ms() {
  return std::chrono::duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

uint32_t random_number() {
  uint32_t random = 0;
  if (::getrandom(&random, sizeof random, GRND_NONBLOCK) < 0) {
    random = static_cast<uint32_t>(now_ms());
  }
  return random;
}

}  // namespace

// One attempt to connect, and then the connection. The thread of an attempt that is given up owns
// the attempt alone.
struct Link::Attempt {
  Link *link;
  mqtt::Address address;
  mqtt::Properties properties;
  int error = MOSQ_ERR_SUCCESS;
  int number = 0;  // errno
  std::atomic<bool> done = false;
  std::mutex trouble_lock;
  std::string trouble;  // what the library has logged as errors: which file, then why
  mqtt::Client client;  // the first to go: it may log until then

  std::string why() {
    const std::lock_guard<std::mutex> hold(trouble_lock);
    if (!trouble.empty()) return trouble;
    return mqtt::error_text(error, number);
  }
  void forget_trouble() {
    const std::lock_guard<std::mutex> hold(trouble_lock);
    trouble.clear();
  }
};

Link::Link(const Config *config, std::string client_id, Will will, LinkHandlers handlers)
    : config_(config),
      client_id_(std::move(client_id)),
      will_(std::move(will)),
      handlers_(std::move(handlers)),
      retry_timer_([this] { attempt(); }),
      patience_([this] {
        if (current_ && !current_->done) {
          trouble_ = "nothing came of it in time";
        } else {
          trouble_ = "the broker does not answer";
        }
        lost();
      }),
      handshake_([this] { service(ORP_UV_WRITABLE); }),
      keep_alive_([this] { keep_alive(); }),
      window_(config->in_flight) {
  mosquitto_lib_init();
  wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  wake_up_ = ORP_UTIL_SockBaseRegNew(
      wake_fd_, 0,
      [](ORP_UTIL_SOCKBASE_ST *base, uint32_t /*event*/) {
        guarded("An attempt to connect",
                [base] { reinterpret_cast<Link *>(base->io.head.data)->attempted(); });
      },
      ORP_UTIL_SOCKBASE_READ, reinterpret_cast<ORP_WORD>(this));
  if (wake_up_ == nullptr) throw std::bad_alloc();
}

Link::~Link() {
  if (socket_ != nullptr) ORP_UTIL_SocketBaseDelete(socket_);
  // The eventfd stays open: a thread may still write to it.
}

void Link::start() {
  attempt();
}

// ---- Attempts ----

void Link::attempt() {
  if (g_threads >= kMostThreads) {
    say(MLOG_LEVEL_WARN, "{} attempts to connect have not come back; waiting for one.",
        g_threads.load());
    retry();
    return;
  }
  const mqtt::Address &address = config_->brokers[next_broker_];
  next_broker_ = (next_broker_ + 1) % config_->brokers.size();
  trouble_.clear();
  over_ = false;
  auto made = std::make_shared<Attempt>();
  made->link = this;
  made->address = address;
  current_ = made;
  try {
    std::optional<mqtt::Credentials> credentials;
    if (!config_->credentials.empty()) {
      try {
        credentials = mqtt::read_credentials(config_->credentials);
      } catch (const catalogue::JsonError &error) {
        throw std::runtime_error(catalogue::problem_in(config_->credentials, error).text());
      } catch (const catalogue::Unreadable &error) {
        throw std::runtime_error(config_->credentials + ": " + error.what());
      }
    }
    made->client = mqtt::make_client(client_id_, made.get(), address, config_->tls, credentials);
    mosquitto *client = made->client.get();
    mosquitto_int_option(client, MOSQ_OPT_SEND_MAXIMUM, config_->in_flight);
    mosquitto_connect_v5_callback_set(client, on_connect);
    mosquitto_disconnect_v5_callback_set(client, on_disconnect);
    mosquitto_publish_v5_callback_set(client, on_publish);
    mosquitto_subscribe_v5_callback_set(client, on_subscribe);
    mosquitto_message_v5_callback_set(client, on_message);
    mosquitto_log_callback_set(client, on_log);
    mosquitto_will_set_v5(client, will_.topic.c_str(), static_cast<int>(will_.payload.size()),
                          will_.payload.data(), 1, true, nullptr);
    made->properties.add_short(MQTT_PROP_RECEIVE_MAXIMUM, kReceiveMaximum);
    made->properties.add_number(MQTT_PROP_MAXIMUM_PACKET_SIZE, kLargestPacket);
    std::thread([made, fd = wake_fd_, keep_alive_s = config_->keep_alive_s,
                 counted = std::make_unique<Counted>()]() mutable {
      made->error = mosquitto_connect_bind_v5(made->client.get(), made->address.host.c_str(),
                                              made->address.port, keep_alive_s, nullptr,
                                              made->properties.get());
      made->number = errno;
      made->done = true;
      counted.reset();
      constexpr uint64_t kOne = 1;
      (void)!::write(fd, &kOne, sizeof kOne);
    }).detach();
  } catch (const std::exception &error) {
    trouble_ = error.what();
    lost();
    return;
  }
  patience_.start(kAttemptTime_ms);
}

// A thread is done, perhaps that of an attempt that was given up.
void Link::attempted() {
  uint64_t count;
  (void)!::read(wake_fd_, &count, sizeof count);
  if (!current_ || !current_->done || socket_ != nullptr) return;
  if (current_->error != MOSQ_ERR_SUCCESS) {
    trouble_ = current_->why();
    lost();
    return;
  }
  const int fd = ::dup(mosquitto_socket(current_->client.get()));
  if (fd >= 0 && fd < ORP_UV_MAX_DESCRIPTORS) {
    socket_ = ORP_UTIL_SockBaseRegNew(
        fd, 0,
        [](ORP_UTIL_SOCKBASE_ST *base, uint32_t event) {
          guarded("The connection to the broker",
                  [base, event] { reinterpret_cast<Link *>(base->io.head.data)->service(event); });
        },
        ORP_UTIL_SOCKBASE_READ, reinterpret_cast<ORP_WORD>(this));
  }
  if (socket_ == nullptr) {
    if (fd >= 0) ::close(fd);
    trouble_ = "no descriptor below 1024 is left";
    lost();
    return;
  }
  writing_ = false;
  keep_alive_.start(kKeepAlivePeriod_ms);
  update_interest();
}

void Link::retry() {
  retry_timer_.start(backoff_ms(config_->reconnect, failures_, random_number()));
  ++failures_;
}

// ---- The connection ----

void Link::service(uint32_t event) {
  if (!current_) return;
  int error = MOSQ_ERR_SUCCESS;
  if (event == ORP_UV_WRITABLE) error = mosquitto_loop_write(current_->client.get(), 1);
  if (error == MOSQ_ERR_SUCCESS && (event != ORP_UV_WRITABLE || current_->address.tls)) {
    error = read_packets();
  }
  after_call(error);
}

// TLS may hold packets of which the socket shows nothing any more (SSL_pending(3)), so it is read
// until nothing is left.
int Link::read_packets() {
  mosquitto *client = current_->client.get();
  for (int reads = 0; reads < kMostReads; ++reads) {
    errno = 0;
    const int error = mosquitto_loop_read(client, 1);
    if (error != MOSQ_ERR_SUCCESS || over_ || !current_->address.tls || errno == EAGAIN) {
      return error;
    }
  }
  handshake_.start_if_idle(1);
  return MOSQ_ERR_SUCCESS;
}

// To be called after every call of the library that may have run callbacks.
void Link::after_call(int error) {
  const int number = errno;
  if (error != MOSQ_ERR_SUCCESS && trouble_.empty()) {
    current_->error = error;
    current_->number = number;
    trouble_ = current_->why();
  }
  if (error != MOSQ_ERR_SUCCESS || over_) {
    lost();
  } else {
    update_interest();
  }
}

void Link::update_interest() {
  if (!current_ || socket_ == nullptr) return;
  const bool want = mosquitto_want_write(current_->client.get());
  // During the handshake of TLS the library may want to write, but first needs input: watching for
  // room would never rest.
  const bool watch = want && (up_ || !current_->address.tls);
  if (want && !watch) handshake_.start_if_idle(kHandshakePeriod_ms);
  if (watch == writing_) return;
  writing_ = watch;
  if (watch) {
    (void)ORP_UTIL_SetWriteFd(socket_);
  } else {
    (void)ORP_UTIL_ClearWriteFd(socket_);
  }
}

void Link::keep_alive() {
  if (!current_ || socket_ == nullptr) return;
  keep_alive_.start(kKeepAlivePeriod_ms);
  after_call(mosquitto_loop_misc(current_->client.get()));
}

void Link::lost() {
  const bool was_up = up_;
  const std::string address = current_ ? current_->address.text() : "the broker";
  up_ = false;
  patience_.stop();
  handshake_.stop();
  keep_alive_.stop();
  if (socket_ != nullptr) ORP_UTIL_SocketBaseDelete(socket_);
  socket_ = nullptr;
  subscribing_.clear();
  current_.reset();
  if (was_up) {
    say(MLOG_LEVEL_WARN, "The connection to {} has ended: {}; trying again.", address, trouble_);
    if (now_ms() - connected_at_ms_ > kLasting_ms) failures_ = 0;
  } else if (failures_ < 3 || failures_ % 16 == 0) {
    say(MLOG_LEVEL_WARN, "No connection to {}: {}; trying again.", address, trouble_);
  }
  retry();
  if (was_up) handlers_.ended();
}

void Link::end(const std::string &why) {
  if (!current_) return;
  trouble_ = why;
  over_ = true;
  handshake_.start_if_idle(1);  // ends the connection from the loop
}

Link::Sent Link::publish(const std::string &topic, std::string_view payload, int qos, bool retain,
                         const mqtt::Properties &properties) {
  if (!up_ || over_) return {MOSQ_ERR_NO_CONN, 0};
  int id = 0;
  const int error = mosquitto_publish_v5(current_->client.get(), &id, topic.c_str(),
                                         static_cast<int>(payload.size()), payload.data(), qos,
                                         retain, properties.get());
  update_interest();
  return {error, id};
}

void Link::subscribe(const std::string &topics) {
  if (!up_) return;
  int id = 0;
  const int error = mosquitto_subscribe_v5(current_->client.get(), &id, topics.c_str(), 1,
                                           MQTT_SUB_OPT_SEND_RETAIN_NEVER, nullptr);
  if (error != MOSQ_ERR_SUCCESS) {
    say(MLOG_LEVEL_ERROR, "{} is not subscribed to: {}.", topics, mosquitto_strerror(error));
  } else {
    subscribing_[id] = topics;
  }
  update_interest();
}

void Link::subscribed(int id, int reason) {
  const auto answered = subscribing_.extract(id);
  if (answered && reason >= kFirstError) {
    say(MLOG_LEVEL_ERROR, "The broker refuses the subscription to {}: {}.", answered.mapped(),
        mosquitto_reason_string(reason));
  }
}

void Link::farewell(const std::string &topic, std::string_view payload) {
  retry_timer_.stop();
  if (!up_) return;
  const mqtt::Properties none;
  bool sent = false;
  int wanted = -1;
  handlers_.acknowledged = [&](int id, int /*reason*/) { sent |= id == wanted; };
  handlers_.arrived = nullptr;
  wanted = publish(topic, payload, 1, true, none).id;
  const auto end = steady_clock::now() + kFarewellTime;
  mosquitto *client = current_->client.get();
  while (!sent && !over_ && steady_clock::now() < end) {
    pollfd entry{.fd = mosquitto_socket(client), .events = POLLIN, .revents = 0};
    if (mosquitto_want_write(client)) entry.events |= POLLOUT;
    if (entry.fd < 0 || ::poll(&entry, 1, 50) < 0) break;
    if ((entry.revents & POLLOUT) != 0 && mosquitto_loop_write(client, 1) != 0) break;
    if ((entry.revents & ~POLLOUT) != 0 && mosquitto_loop_read(client, 1) != 0) break;
  }
  mosquitto_disconnect_v5(client, 0, nullptr);
  handlers_.acknowledged = nullptr;
  up_ = false;
}

// ---- What the library calls ----

namespace {

// The library looks at errno after its callbacks, as if its socket had set it.
template <typename Procedure>
void called_back(Procedure &&procedure) noexcept {
  guarded("What came from the broker", procedure);
  errno = 0;
}

}  // namespace

void Link::on_connect(mosquitto * /*client*/, void *object, int reason, int /*flags*/,
                      const mosquitto_property *properties) {
  Link *link = static_cast<Attempt *>(object)->link;
  called_back([=] { link->accepted(reason, properties); });
}

void Link::accepted(int reason, const mosquitto_property *properties) {
  if (reason != 0) {
    over_ = true;
    trouble_ = std::string("the broker refuses: ") + mosquitto_reason_string(reason);
    return;
  }
  patience_.stop();
  handshake_.stop();
  up_ = true;
  // Why it ends one day has other reasons.
  current_->forget_trouble();
  connected_at_ms_ = now_ms();
  ++connections_;
  uint16_t most = UINT16_MAX;
  mosquitto_property_read_int16(properties, MQTT_PROP_RECEIVE_MAXIMUM, &most, false);
  window_ = std::min(config_->in_flight, std::max<uint16_t>(most, 1));
  say(MLOG_LEVEL_INFO, "Connected to {}.", current_->address.text());
  handlers_.connected();
}

void Link::on_disconnect(mosquitto * /*client*/, void *object, int reason,
                         const mosquitto_property * /*properties*/) {
  Link *link = static_cast<Attempt *>(object)->link;
  link->over_ = true;
  called_back([=] {
    // Reason codes below 0x80 are the library's own errors; after_call() has their texts.
    if (link->trouble_.empty() && reason >= kFirstError) {
      link->trouble_ = std::string("the broker ends it: ") + mosquitto_reason_string(reason);
    }
  });
}

void Link::on_publish(mosquitto * /*client*/, void *object, int id, int reason,
                      const mosquitto_property * /*properties*/) {
  Link *link = static_cast<Attempt *>(object)->link;
  if (link->handlers_.acknowledged) called_back([=] { link->handlers_.acknowledged(id, reason); });
}

// Each packet subscribes to one topic and so has one answer.
void Link::on_subscribe(mosquitto * /*client*/, void *object, int id, int count, const int *reasons,
                        const mosquitto_property * /*properties*/) {
  Link *link = static_cast<Attempt *>(object)->link;
  if (count > 0) called_back([=] { link->subscribed(id, reasons[0]); });
}

void Link::on_message(mosquitto * /*client*/, void *object, const mosquitto_message *message,
                      const mosquitto_property *properties) {
  Link *link = static_cast<Attempt *>(object)->link;
  if (link->handlers_.arrived) called_back([=] { link->handlers_.arrived(*message, properties); });
}

// Also runs in the thread of an attempt.
void Link::on_log(mosquitto * /*client*/, void *object, int level, const char *text) {
  if (level != MOSQ_LOG_ERR) return;
  const int number = errno;  // the library reads it after this call
  guarded("A line of the broker's library", [=] {
    auto *made = static_cast<Attempt *>(object);
    const std::lock_guard<std::mutex> hold(made->trouble_lock);
    while (made->trouble.ends_with('.')) made->trouble.pop_back();
    if (!made->trouble.empty()) made->trouble += "; ";
    made->trouble.append(text).resize(std::min(made->trouble.size(), kLongestTrouble));
  });
  errno = number;
}

}  // namespace msgbridge
