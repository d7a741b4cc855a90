#include "servers/msgbridge/scripted_broker.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

#include "support/network.h"

namespace test {
namespace {

constexpr char kResponseTopic = 0x08;
constexpr char kCorrelationData = 0x09;

bool is_ready(int fd, int timeout_ms) {
  pollfd entry{.fd = fd, .events = POLLIN, .revents = 0};
  return ::poll(&entry, 1, timeout_ms) == 1;
}

// A two-byte integer (MQTT 5, 1.5.2).
std::string word(size_t number) {
  return {static_cast<char>(number >> 8), static_cast<char>(number & 0xff)};
}

// With its length in front (MQTT 5, 1.5.4).
std::string sized(std::string_view text) {
  return word(text.size()) + std::string(text);
}

// A variable byte integer (MQTT 5, 1.5.5).
std::string variable(size_t number) {
  std::string bytes;
  do {
    const size_t more = number >= 128 ? 128 : 0;
    bytes += static_cast<char>(number % 128 + more);
    number /= 128;
  } while (number > 0);
  return bytes;
}

// Takes what a packet holds off its front.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}

  std::string_view take(size_t count) {
    if (count > bytes_.size()) throw std::runtime_error("a packet is too short");
    const std::string_view taken = bytes_.substr(0, count);
    bytes_.remove_prefix(count);
    return taken;
  }
  size_t byte() { return static_cast<unsigned char>(take(1)[0]); }
  size_t word() {
    const size_t high = byte();
    return high << 8 | byte();
  }
  size_t variable() {
    size_t number = 0;
    for (unsigned shift = 0;; shift += 7) {
      const size_t next = byte();
      number |= (next & 127) << shift;
      if (next < 128) return number;
    }
  }
  std::string_view rest() const { return bytes_; }

 private:
  std::string_view bytes_;
};

}  // namespace

ScriptedBroker::ScriptedBroker(uint16_t port)
    : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const sockaddr_in address = loopback(port);
  const int on = 1;
  ::setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  EXPECT_EQ(0,
            ::bind(listener_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
  EXPECT_EQ(0, ::listen(listener_.get(), 16));
}

void ScriptedBroker::accept() {
  connection_.reset();
  received_.clear();
  ended_ = false;
  if (!is_ready(listener_.get(), kPatience_ms)) throw std::runtime_error("nobody connects");
  connection_.reset(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  read(PacketType::kConnect);
}

void ScriptedBroker::welcome(std::string_view properties) {
  accept();
  send(PacketType::kConnack,
       std::string(2, '\0') + variable(properties.size()) + std::string(properties));
}

void ScriptedBroker::refuse(uint8_t reason) {
  accept();
  send(PacketType::kConnack, std::string{'\0', static_cast<char>(reason), '\0'});
}

void ScriptedBroker::send(std::string_view bytes) {
  // The client may have gone already.
  (void)!::send(connection_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void ScriptedBroker::send(PacketType type, std::string_view body, uint8_t flags) {
  const auto first = static_cast<char>(static_cast<unsigned>(type) << 4 | flags);
  send(first + variable(body.size()) + std::string(body));
}

void ScriptedBroker::publish(const std::string &topic, const std::string &payload,
                             const std::string &answer_to, const std::string &correlation) {
  std::string properties;
  if (!answer_to.empty()) properties += kResponseTopic + sized(answer_to);
  if (!correlation.empty()) properties += kCorrelationData + sized(correlation);
  send(PacketType::kPublish, sized(topic) + variable(properties.size()) + properties + payload);
}

void ScriptedBroker::acknowledge(const Publication &publication, uint8_t reason) {
  send(PacketType::kPuback, word(publication.id) + std::string{static_cast<char>(reason), '\0'});
}

void ScriptedBroker::answer_subscription(const Packet &subscribe, uint8_t reason) {
  send(PacketType::kSuback,
       subscribe.body.substr(0, 2) + std::string{'\0', static_cast<char>(reason)});
}

bool ScriptedBroker::receive(size_t count, int timeout_ms) {
  while (received_.size() < count) {
    if (!is_ready(connection_.get(), timeout_ms)) return false;
    std::array<char, 65536> bytes;
    const ssize_t got = ::recv(connection_.get(), bytes.data(), bytes.size(), 0);
    ended_ = got <= 0;
    if (ended_) return false;
    received_.append(bytes.data(), static_cast<size_t>(got));
  }
  return true;
}

std::optional<Packet> ScriptedBroker::next(int timeout_ms) {
  size_t head = 2;
  do {
    if (!receive(head, timeout_ms)) return std::nullopt;
  } while ((received_[head - 1] & 128) != 0 && ++head <= 5);
  const size_t length = Reader(std::string_view(received_).substr(1)).variable();
  if (!receive(head + length, timeout_ms)) return std::nullopt;
  const auto first = static_cast<unsigned char>(received_[0]);
  Packet packet{static_cast<PacketType>(first >> 4), static_cast<uint8_t>(first & 15),
                received_.substr(head, length)};
  received_.erase(0, head + length);
  return packet;
}

Packet ScriptedBroker::read(PacketType type) {
  while (std::optional<Packet> packet = next()) {
    if (packet->type == type) return std::move(*packet);
  }
  throw std::runtime_error("the client does not send a packet of type " +
                           std::to_string(static_cast<int>(type)));
}

Publication ScriptedBroker::read(const std::string &topic) {
  for (;;) {
    Publication publication = read_publication();
    if (publication.topic == topic) return publication;
    if (publication.qos > 0) acknowledge(publication);
  }
}

Publication ScriptedBroker::publication_of(const Packet &packet) {
  Publication publication;
  publication.qos = packet.flags >> 1 & 3;
  publication.retain = (packet.flags & 1) != 0;
  Reader reader(packet.body);
  publication.topic = reader.take(reader.word());
  if (publication.qos > 0) publication.id = static_cast<uint16_t>(reader.word());
  const std::string_view properties = reader.take(reader.variable());
  const std::string name = sized("sequence");  // of a user's property, in front of its value
  if (const size_t at = properties.find(name); at != properties.npos) {
    Reader value(properties.substr(at + name.size()));
    publication.sequence = std::stoull(std::string(value.take(value.word())));
  }
  publication.payload = reader.rest();
  return publication;
}

}  // namespace test
