// A real broker, and a client of it.
#pragma once

#include <mosquitto.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <semaphore>
#include <string>
#include <vector>

#include "support/process.h"

namespace test {

// Where Debian installs the broker; it may be missing.
inline constexpr const char *kBrokerProgram = "/usr/sbin/mosquitto";

// Starts the broker on a port of this machine. `settings` are further lines of its configuration.
std::unique_ptr<Process> start_broker(uint16_t port,
                                      const std::string &settings = "allow_anonymous true\n");

struct Received {
  std::string topic;
  std::string payload;
  bool retained;
};

// Has subscribed when the constructor returns.
class Listener {
 public:
  Listener(uint16_t port, const std::string &topics);
  ~Listener();

  // Waits for a publication to `topic` that holds `part`.
  bool wait_for(const std::string &topic, const std::string &part);
  // What has come, in order.
  std::vector<Received> all();

  // Publishes like a bridge, with the number of an event, or 0.
  void publish(const std::string &topic, const std::string &payload, uint64_t sequence = 0,
               bool retain = false);

 private:
  mosquitto *client_;
  std::binary_semaphore subscribed_{0};
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<Received> received_;
};

}  // namespace test
