// Whatever is killed, cut or full between the bridge and the broker, every event arrives at least
// once, in order, or is reported as given up.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mount.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "servers/msgbridge/bridge_fixture.h"
#include "support/soak.h"

namespace {

namespace fs = std::filesystem;

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::configure;
using test::kCountTopic;
using test::kLostTopic;
using test::PacketType;
using test::Publication;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// What the broker has been told.
class Account {
 public:
  // Events that are new must come in order; others are what they were.
  void take(const Publication &publication) {
    if (publication.topic == kLostTopic) {
      const json notice = json::parse(publication.payload);
      reasons.insert(notice["reason"]);
      for (uint64_t i = notice["first"]; i <= notice["last"]; ++i) noticed_.insert(i);
    } else if (publication.topic == kCountTopic) {
      const auto [known, is_new] = heard.emplace(publication.sequence, publication.payload);
      twice += is_new ? 0 : 1;
      EXPECT_EQ(known->second, publication.payload);
      EXPECT_TRUE(!is_new || std::next(known) == heard.end()) << publication.sequence;
    }
  }
  uint64_t last() const { return heard.empty() ? 0 : heard.rbegin()->first; }
  // The numbers up to the last that were neither heard nor in a notice of loss.
  std::vector<uint64_t> missing() const {
    std::vector<uint64_t> numbers;
    for (uint64_t i = 1; i < last(); ++i) {
      if (!heard.contains(i) && !noticed_.contains(i)) numbers.push_back(i);
    }
    return numbers;
  }

  std::map<uint64_t, std::string> heard;
  uint64_t twice = 0;
  std::set<std::string> reasons;

 private:
  std::set<uint64_t> noticed_;
};

class BridgeDelivery : public test::ScriptedBrokerTest {
 protected:
  // Takes and acknowledges what comes until the last event has come.
  void take_until(uint64_t last) {
    while (account_.last() < last) {
      const Publication publication = broker_.read_publication();
      account_.take(publication);
      if (publication.qos > 0) broker_.acknowledge(publication);
    }
    EXPECT_EQ(last, account_.last());
    EXPECT_THAT(account_.missing(), IsEmpty());
  }

  Account account_;
};

TEST_F(BridgeDelivery, SurvivesCutsInTheMiddleOfAcknowledgements) {
  configure();
  auto bridge = start_bridge();
  std::mt19937 random(test::seed());
  int published = 0;
  for (uint32_t cut = 0; cut < 20 * test::soak_factor(); ++cut) {
    take_connection();
    publish_numbers(published + 1, published + 100);
    published += 100;
    for (auto count = random() % 100; count > 0; --count) {
      const Publication event = broker_.read(kCountTopic);
      account_.take(event);
      if (random() % 4 > 0) broker_.acknowledge(event);
    }
  }
  take_connection();
  take_until(static_cast<uint64_t>(published));
  EXPECT_LT(0u, account_.twice);
  EXPECT_THAT(account_.reasons, IsEmpty());
}

TEST_F(BridgeDelivery, SurvivesItsOwnDeath) {
  configure(R"("up": [{}], "spool": {"per_second": 0})");
  std::atomic<int> published = 0;
  std::jthread publisher([&published](const std::stop_token &stop) {
    while (!stop.stop_requested()) {
      publish(std::to_string(++published));
      std::this_thread::sleep_for(milliseconds(1));
    }
  });
  std::mt19937 random(test::seed());
  const int rounds = test::soak_factor() > 1 ? 100 : 20;
  for (int round = 0; round < rounds; ++round) {
    auto bridge = start_bridge();
    take_connection();
    take_until(account_.last() + random() % 200);
    bridge->stop(SIGKILL);
  }
  publisher.request_stop();
  publisher.join();
  auto bridge = start_bridge();
  take_connection();
  publish(std::to_string(++published));
  const auto number_of = [](const std::string &payload) {
    return std::stoi(json::parse(payload)["Payload"]["number"].get<std::string>());
  };
  do take_until(account_.last() + 1);
  while (number_of(account_.heard.rbegin()->second) != published);
  // Nobody took the events that were published while the bridge was dead. No others are missing.
  int before = 0, gaps = 0;
  for (const auto &[sequence, payload] : account_.heard) {
    const int number = number_of(payload);
    EXPECT_LT(before, number);
    gaps += number != before + 1 ? 1 : 0;
    before = number;
  }
  EXPECT_GE(rounds + 1, gaps);
  EXPECT_THAT(account_.reasons, IsEmpty());
}

TEST_F(BridgeDelivery, CountsWhatItGivesUpWhileTheBrokerIsAway) {
  configure(R"("up": [{}], "spool": {"bytes": 100000, "per_second": 200})");
  auto bridge = start_bridge();
  publish_numbers(1, 1000);
  welcome_when("sequence", 1000);
  bridge->stop(SIGKILL);
  bridge = start_bridge();
  publish_numbers(1001, 2000);
  welcome_when("sequence", 2000);
  const auto begin = steady_clock::now();
  take_until(2000);
  EXPECT_LT(milliseconds(500), steady_clock::now() - begin) << "what waited has a limited rate";
  EXPECT_LT(100u, account_.heard.size());
  EXPECT_GT(600u, account_.heard.size()) << "a hundred kilobytes hold no more";
  EXPECT_THAT(account_.reasons, ElementsAre("full"));
}

TEST_F(BridgeDelivery, SurvivesAFullDisk) {
  fs::create_directories("/var/small");
  ASSERT_EQ(0, ::mount("small", "/var/small", "tmpfs", 0, "size=1m"));
  configure(R"("up": [{}], "spool": {"path": "/var/small/spool.db", "reserve": false})");
  auto bridge = start_bridge();
  publish_numbers(1, 20);
  welcome_when("sequence", 20);
  {
    std::ofstream filler("/var/small/filler", std::ios::binary);
    const std::string block(4096, 'x');
    while (filler.write(block.data(), 4096) && filler.flush()) {
    }
  }
  publish_numbers(21, 6000);  // more than memory may keep
  ASSERT_TRUE(bridge->wait_for("database or disk is full")) << bridge->output();
  fs::remove("/var/small/filler");
  ASSERT_TRUE(bridge->wait_for("written again")) << bridge->output();
  publish("6001");
  take_until(6001);
}

TEST_F(BridgeDelivery, GoesOnWhenItsSpoolIsDamaged) {
  configure(R"("up": [{}], "spool": {"path": "/var/spool.db", "reserve": false})");
  auto bridge = start_bridge();
  publish_numbers(1, 3000);  // more than it keeps in memory
  welcome_when("sequence", 3000);
  for (const char *file : {"/var/spool.db", "/var/spool.db-wal"}) {
    std::fstream pages(file, std::ios::in | std::ios::out | std::ios::binary);
    pages.seekp(4096);
    const std::string garbage(fs::file_size(file) - 4096, '\x7f');
    ASSERT_TRUE(pages.write(garbage.data(), static_cast<std::streamsize>(garbage.size())).flush());
  }
  while (const auto packet = broker_.next()) {
    if (packet->type != PacketType::kPublish) continue;
    const Publication event = test::ScriptedBroker::publication_of(*packet);
    account_.take(event);
    broker_.acknowledge(event);
  }
  EXPECT_TRUE(bridge->wait_for("was damaged, is begun anew")) << bridge->output();
  EXPECT_TRUE(bridge->wait_for("has ended: the spool has lost what was on its way"))
      << bridge->output();
  take_connection();
  publish("3001");
  take_until(3001);
  EXPECT_THAT(account_.reasons, ElementsAre("damaged"));
}

TEST_F(BridgeDelivery, NoticesWhenNothingComesThroughAnyMore) {
  configure(R"("up": [{}])", R"(, "keep_alive_s": 5)");
  auto bridge = start_bridge();
  take_connection();
  broker_.read(PacketType::kPingreq);
  EXPECT_TRUE(bridge->wait_for("has ended")) << bridge->output();
  take_connection();
}

TEST_F(BridgeDelivery, WhatNeedsNoAcknowledgementLeavesTheSpool) {
  configure(R"("up": [{"qos": 0}])");
  auto bridge = start_bridge();
  take_connection();
  publish_numbers(1, 200);  // more than may be under way
  take_until(200);
  EXPECT_EQ(0u, account_.twice);
  for (const char *file : {"", "/spool.db", "/spool.db-wal"}) {
    const auto status = fs::status(std::string("/var/spool/msgbridge") + file);
    EXPECT_EQ(fs::perms::none,
              status.permissions() & (fs::perms::group_all | fs::perms::others_all))
        << "events are nobody else's: " << file;
  }
  EXPECT_EQ(0, bridge->stop(SIGTERM));
  EXPECT_THAT(bridge->output(), HasSubstr("0 events wait"));
}

}  // namespace
