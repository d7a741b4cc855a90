// The message server as a process, with random clients that keep no rules and pairs of clients that
// do: whatever the former send, the latter lose nothing.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "msgapi/restful.h"
#include "servers/message_server.h"
#include "support/message_peer.h"
#include "support/soak.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using test::Frame;
using test::padded;
using test::RawClient;

constexpr uint32_t kPing = 0x4321;
constexpr seconds kUsual{60};
constexpr seconds kLongest{600};

constexpr int kPairs = 2;
constexpr uint32_t kHostile = 3;
constexpr size_t kConnections = 8;

// One thread's connections, and what they do.
class Vandal {
 public:
  Vandal(uint32_t number, uint32_t seed) : number_(number), random_(seed) {}

  void act() {
    if (clients_.size() < kConnections) return connect();
    const size_t which = below(static_cast<uint32_t>(clients_.size()));
    RawClient &client = clients_[which];
    switch (below(12)) {
      case 0:
        clients_.erase(clients_.begin() + static_cast<ptrdiff_t>(which));
        break;
      case 1:
        ::shutdown(client.fd(), SHUT_WR);
        break;
      case 2:
        flood(client);
        break;
      case 3:
        send(client, noise(below(200)));
        break;
      case 4: {  // half a message
        const std::string whole = message(below(200000)).bytes(client.name());
        send(client, whole.substr(0, below(static_cast<uint32_t>(whole.size()))));
        break;
      }
      case 5:
        test::send_with_descriptors(client.fd(), below(3) == 0 ? "ab" : std::string(2, '\0'),
                                    1 + below(3));
        break;
      case 6:
        send(client, request().bytes(client.name()));
        break;
      case 7: {  // a damaged one
        std::string bytes = message(below(100)).bytes(client.name());
        bytes[below(static_cast<uint32_t>(bytes.size()))] ^= static_cast<char>(1 + below(255));
        if (!names_a_pair(bytes)) send(client, bytes);
        break;
      }
      case 8:
      case 9:
        drop(client);
        break;
      default:
        send(client, message(below(3000)).bytes(client.name()));
    }
  }

 private:
  uint32_t below(uint32_t limit) {
    return limit == 0 ? 0 : static_cast<uint32_t>(random_() % limit);
  }

  template <typename T>
  T pick(std::initializer_list<T> from) {
    return *(from.begin() + below(static_cast<uint32_t>(from.size())));
  }

  void connect() {
    const std::string name = name_of(number_);
    clients_.emplace_back(name, RawClient::Register::kNo);
    if (below(4) != 0) send(clients_.back(), Frame{.type = ORP_MSG_REGISTER}.bytes(name));
  }

  // Never waits for the server: bytes that it does not take at once are not sent.
  static void send(const RawClient &client, const std::string &bytes) {
    ::send(client.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  }

  static void drop(const RawClient &client) {
    char bytes[65536];
    ::recv(client.fd(), bytes, sizeof bytes, MSG_DONTWAIT);
  }

  // Several connections have the same name at times.
  std::string name_of(uint32_t number) {
    return "v" + std::to_string(number) + std::to_string(below(6));
  }

  std::string noise(size_t size) {
    std::string bytes(size, '\0');
    for (char &byte : bytes) byte = static_cast<char>(below(256));
    return bytes;
  }

  static bool names_a_pair(const std::string &bytes) {
    return bytes.find("ping") != std::string::npos || bytes.find("pong") != std::string::npos;
  }

  std::string target() {
    return pick<std::string>({"", "nobody", name_of(below(kHostile)), name_of(below(kHostile))});
  }

  Frame message(size_t size) {
    return {.type = 0x1000 + below(16), .to = target(), .body = std::string(size, 'm')};
  }

  void flood(const RawClient &client) {
    const std::string frame = message(below(8000)).bytes(client.name());
    for (size_t sent = 0; sent < 300000; sent += frame.size()) send(client, frame);
  }

  // A request that makes the server keep something or give something up, often with a body of
  // another.
  Frame request() {
    const std::string name = "k" + std::to_string(below(2000));
    const uint32_t event = ORP_MSG_ALL_EVENTS + below(300);
    return {
        .type = pick<uint32_t>({ORP_MSG_SUBSCRIBE, ORP_MSG_UNSUBSCRIBE, ORP_MSG_SYNC_WAIT,
                                ORP_MSG_SYNC_POST, ORP_MSG_RESTFUL_REGISTER,
                                ORP_MSG_RESTFUL_REQUEST, ORP_LCTRL_MSG_LOGIN + below(5), event}),
        .body = pick<std::string>({"", padded(name), name + '\0', "/" + name + "|/x/" + name + '\0',
                                   noise(136), noise(below(500))}),
        .data = event};
  }

  const uint32_t number_;
  std::mt19937 random_;
  std::vector<RawClient> clients_;
};

// Whether the partner's next message comes; a notice of a loss in its place is a failure.
bool expect_ping(RawClient *client, uint32_t sequence, size_t size) {
  const Frame frame = client->read();
  return frame.type == kPing && frame.sequence == sequence && frame.body.size() == size;
}

class MsgsvrSoak : public test::MessageServer {};

TEST_F(MsgsvrSoak, HostileClientsCostOthersNothing) {
  start({"--patience", "10000"});
  const auto end =
      steady_clock::now() + std::min(kUsual * static_cast<int>(test::soak_factor()), kLongest);

  std::atomic<uint64_t> exchanged = 0;
  std::atomic<bool> lost = false;
  std::atomic<uint64_t> acts = 0;
  std::vector<std::thread> threads;
  for (uint32_t i = 0; i < kHostile; ++i) {
    threads.emplace_back([&, i] {
      Vandal vandal(i, test::seed() * 1000 + i);
      for (; steady_clock::now() < end && !lost; ++acts) vandal.act();
    });
  }
  for (int i = 0; i < kPairs; ++i) {
    threads.emplace_back([&, i] {
      RawClient ping("ping" + std::to_string(i));
      RawClient pong("pong" + std::to_string(i));
      std::mt19937 random(test::seed() + static_cast<uint32_t>(i));
      for (uint32_t sequence = 1; steady_clock::now() < end && !lost;) {
        // Several messages are on their way at a time, now and then a long one.
        std::vector<size_t> sizes;
        for (uint32_t n = 1 + random() % 8; n > 0; --n) sizes.push_back(random() % 4000);
        if (random() % 50 == 0) sizes.push_back(150000);
        std::thread sender([&] {
          for (size_t k = 0; k < sizes.size(); ++k) {
            ping.send({.type = kPing,
                       .to = pong.name(),
                       .body = std::string(sizes[k], 'p'),
                       .sequence = sequence + static_cast<uint32_t>(k)});
          }
        });
        for (size_t k = 0; k < sizes.size() && !lost; ++k) {
          if (!expect_ping(&pong, sequence + static_cast<uint32_t>(k), sizes[k])) lost = true;
        }
        sender.join();
        sequence += static_cast<uint32_t>(sizes.size());
        exchanged += sizes.size();
        if (!ping.quiet()) lost = true;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();

  EXPECT_FALSE(lost);
  EXPECT_GT(exchanged, 100u);
  RecordProperty("exchanged", std::to_string(exchanged));
  RecordProperty("hostile_acts", std::to_string(acts));
  // The server releases everything that it held for them.
  expect_no_descriptors_but_of(0);
#ifndef __SANITIZE_ADDRESS__
  EXPECT_LT(memory(), size_t{100} << 20);
#endif
  EXPECT_EQ(0, server_->stop(SIGTERM)) << server_->output();
}

}  // namespace
