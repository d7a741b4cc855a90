// A real broker, a proxy in front of it that can be cut, and a client that listens there.
#pragma once

#include <mosquitto.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace test {

// Debian's path of the broker; "" when it is not installed.
std::string broker_program();

class Broker {
 public:
  // Listens on a port of this machine. `settings` are further lines of its configuration.
  explicit Broker(uint16_t port, const std::string &settings = "allow_anonymous true\n");
  ~Broker() { kill(); }

  void start();
  void kill();  // -9

 private:
  uint16_t port_;
  std::string config_;
  pid_t pid_ = -1;
};

// Passes connections on, one after the other.
class Proxy {
 public:
  Proxy(uint16_t port, uint16_t target);
  ~Proxy();

  // While it is closed, nobody gets through; those who are connected are disconnected.
  void open(bool open) { open_ = open; }
  // While it is held, connections stay, but everything that arrives is dropped.
  void hold(bool hold) { hold_ = hold; }
  // Cuts every connection when so many bytes have come back from the broker; 0: cuts none.
  void cut_after(std::function<size_t()> bytes);
  int connections() const { return connections_; }

 private:
  void run();
  void carry(int client);

  uint16_t target_;
  int listener_;
  std::atomic<bool> open_ = true;
  std::atomic<bool> hold_ = false;
  std::atomic<bool> stop_ = false;
  std::atomic<int> connections_ = 0;
  std::mutex lock_;
  std::function<size_t()> budget_;
  std::thread thread_;
};

struct Received {
  std::string topic = {};
  std::string payload = {};
  std::string stream = {};
  uint64_t sequence = 0;
  std::string correlation = {};
  bool retained = false;
};

// What listeners have heard, in the order in which it came.
class Record {
 public:
  void add(Received received);
  // Waits until `is_there` holds; false when it does not within `patience`.
  bool wait(const std::function<bool(const std::vector<Received> &)> &is_there,
            std::chrono::seconds patience = std::chrono::seconds(30));
  bool wait_for(const std::string &topic, const std::string &part);
  std::vector<Received> all();

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<Received> received_;
};

// Has subscribed when the constructor returns. Uses QoS 0, so that the broker passes everything on
// at once.
class Listener {
 public:
  Listener(uint16_t port, const std::string &topics, Record *record);
  ~Listener();

  // Publishes; `answer_to` becomes the response topic.
  void publish(const std::string &topic, const std::string &payload,
               const std::string &answer_to = "", const std::string &correlation = "");

  // Publishes like a bridge, with the number of an event.
  void publish_as(const std::string &topic, const std::string &payload, const std::string &stream,
                  uint64_t sequence, bool retain = false);
  void publish_retained(const std::string &topic, const std::string &payload);

  // After the broker's end: waits until everything that it sent has been heard.
  void wait_for_end() const;

 private:
  mosquitto *client_;
  Record *record_;
  std::atomic<bool> subscribed_ = false;
  std::atomic<bool> ended_ = false;
};

// The accounts of a test: each number from 1 to `last` must have been heard or be in a notice of
// loss, the first hearings must be in order, and no other number may be heard.
struct Account {
  uint64_t heard = 0;     // different events
  uint64_t twice = 0;     // heard again
  uint64_t given_up = 0;  // not heard, and noticed
  uint64_t missing = 0;   // neither
  bool in_order = true;
  std::map<uint64_t, std::string> payloads;
};
Account account_of(const std::vector<Received> &received, uint64_t last);

}  // namespace test
