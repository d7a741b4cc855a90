// A real broker, a road to it that can be cut, and somebody who listens there.
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

// Where Debian has it; "" when it is not installed.
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

  // Closed, nobody gets through, and who is there is thrown out.
  void open(bool open) { open_ = open; }
  // Held, connections stay, and what comes is thrown away.
  void hold(bool hold) { hold_ = hold; }
  // Every connection is cut when so many bytes have come back from the broker; 0: none is.
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

// What listeners hear, in the order of its coming.
class Record {
 public:
  void add(Received received);
  // False when that does not become true for so long.
  bool wait(const std::function<bool(const std::vector<Received> &)> &is_there,
            std::chrono::seconds patience = std::chrono::seconds(30));
  bool wait_for(const std::string &topic, const std::string &part);
  std::vector<Received> all();

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<Received> received_;
};

// Subscribed when the constructor returns. Uses QoS 0, so that the broker passes on what it gets at
// once, and not in its own time.
class Listener {
 public:
  Listener(uint16_t port, const std::string &topics, Record *record);
  ~Listener();

  // Publishes; `answer_to` becomes the response topic.
  void publish(const std::string &topic, const std::string &payload,
               const std::string &answer_to = "", const std::string &correlation = "");

  // As a bridge publishes, with the number of an event.
  void publish_as(const std::string &topic, const std::string &payload, const std::string &stream,
                  uint64_t sequence);
  void publish_retained(const std::string &topic, const std::string &payload);

  // After the broker's end: until everything that it sent has been heard.
  void wait_for_end() const;

 private:
  mosquitto *client_;
  Record *record_;
  std::atomic<bool> subscribed_ = false;
  std::atomic<bool> ended_ = false;
};

// Everything that an accountant needs: each number from 1 to `last` was heard or is in a notice of
// loss, first hearings are in order, and nothing was heard that does not exist.
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
