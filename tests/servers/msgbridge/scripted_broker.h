// A broker whose every packet the test decides: for what a real one rarely says, or never.
//
// Packets are those of MQTT 5, section 3. Every wait is bounded; when it ends without what was
// waited for, the test fails by an exception.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "os/fd.h"
#include "support/soak.h"

namespace test {

// The types of packets in the upper half of their first byte (MQTT 5, 2.1.2).
enum class PacketType : uint8_t {
  kConnect = 1,
  kConnack = 2,
  kPublish = 3,
  kPuback = 4,
  kSubscribe = 8,
  kSuback = 9,
  kPingreq = 12,
  kDisconnect = 14,
};

struct Packet {
  PacketType type;
  uint8_t flags;
  std::string body;
};

// A publication that has arrived.
struct Publication {
  std::string topic;
  std::string payload;
  uint64_t sequence = 0;  // 0 without one
  uint16_t id = 0;        // 0 with QoS 0
  int qos = 0;
  bool retain = false;
};

class ScriptedBroker {
 public:
  explicit ScriptedBroker(uint16_t port);

  // Takes the next connection, instead of the one before, and reads CONNECT.
  void accept();
  // The same, and welcomes the client. `properties` are those of CONNACK.
  void welcome(std::string_view properties = "");
  void refuse(uint8_t reason);

  void send(std::string_view bytes);
  void send(PacketType type, std::string_view body, uint8_t flags = 0);
  // With QoS 0. An empty `answer_to` or `correlation` is left out.
  void publish(const std::string &topic, const std::string &payload, const std::string &answer_to,
               const std::string &correlation = "");
  void acknowledge(const Publication &publication, uint8_t reason = 0);
  void answer_subscription(const Packet &subscribe, uint8_t reason);

  // The next packet; none when nothing comes within `timeout_ms`, or at the connection's end.
  std::optional<Packet> next(int timeout_ms = kPatience_ms);
  // The next packet of this type; others are dropped.
  Packet read(PacketType type);
  // The next publication to `topic`; others are acknowledged.
  Publication read(const std::string &topic);
  Publication read_publication() { return publication_of(read(PacketType::kPublish)); }
  bool has_ended() { return !next().has_value() && ended_; }
  void close() { connection_.reset(); }

  static Publication publication_of(const Packet &packet);

 private:
  bool receive(size_t count, int timeout_ms);

  msgapi::os::UniqueFd listener_;
  msgapi::os::UniqueFd connection_;
  std::string received_;
  bool ended_ = false;
};

}  // namespace test
