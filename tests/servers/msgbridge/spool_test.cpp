#include "msgbridge/spool.h"

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "servers/msgbridge/spool_support.h"
#include "support/soak.h"

namespace {

namespace fs = std::filesystem;

using msgbridge::Event;
using msgbridge::Item;
using msgbridge::Loss;
using msgbridge::Reason;
using msgbridge::Spool;
using msgbridge::SpoolOptions;
using test::g_now;
using test::now;
using testing::ElementsAre;

constexpr const char *kPath = "/var/spool_test/spool.db";

SpoolOptions options(uint64_t bytes = 1 << 20) {
  return test::spool_options(kPath, bytes);
}

void add(Spool *spool, const std::string &payload) {
  spool->append({.boot = g_now.boot, .wall_ms = g_now.wall_ms, .topic = "t", .payload = payload});
}

void add_and_commit(Spool *spool, std::initializer_list<const char *> payloads) {
  for (const char *payload : payloads) add(spool, payload);
  ASSERT_TRUE(spool->commit()) << spool->problem();
}

std::string text_of(const Item &item) {
  if (const auto *event = std::get_if<Event>(&item)) {
    return std::to_string(event->sequence) + " " + event->payload;
  }
  const auto &loss = std::get<Loss>(item);
  return std::string(msgbridge::reason_word(loss.reason)) + " " + std::to_string(loss.first) + "-" +
         std::to_string(loss.last) + " " + std::to_string(loss.count);
}

// Everything that the spool hands out, as "SEQUENCE PAYLOAD" and "REASON FIRST-LAST COUNT".
std::vector<std::string> read(Spool *spool) {
  std::vector<std::string> texts;
  while (const auto item = spool->next()) texts.push_back(text_of(*item));
  return texts;
}

TEST(Spool, KeepsOrderAndWhatIsNotAcknowledged) {
  std::string stream;
  {
    Spool spool(options(), now);
    stream = spool.stream();
    add(&spool, "not yet");
    EXPECT_EQ(std::nullopt, spool.next()) << "nothing goes out that is not on the disk";
    add_and_commit(&spool, {"b", "c"});
    EXPECT_THAT(read(&spool), ElementsAre("1 not yet", "2 b", "3 c"));
    spool.acknowledge(2);
    add_and_commit(&spool, {"d"});
    EXPECT_THAT(read(&spool), ElementsAre("4 d"));
  }
  g_now.boot = "boot-2";
  Spool spool(options(), now);
  EXPECT_EQ(stream, spool.stream());
  EXPECT_EQ(3u, spool.waiting());
  const auto first = spool.next();
  ASSERT_TRUE(first);
  EXPECT_EQ("boot-1", std::get<Event>(*first).boot);
  EXPECT_THAT(read(&spool), ElementsAre("3 c", "4 d"));
  spool.acknowledge(1);
  spool.acknowledge(3);
  spool.acknowledge(4);
  add_and_commit(&spool, {"e"});
  spool.rewind();
  EXPECT_THAT(read(&spool), ElementsAre("5 e"));
}

TEST(Spool, GivesUpTheOldestAndSaysHowMany) {
  const std::string large(20000, 'x');
  Spool spool(options(100'000), now);
  for (int i = 0; i < 10; ++i) add(&spool, large);
  ASSERT_TRUE(spool.commit());

  EXPECT_GE(100'000u, spool.waiting_bytes());
  EXPECT_EQ(4u, spool.waiting());
  EXPECT_EQ(6u, spool.given_up());
  EXPECT_EQ("full 1-6 6", text_of(*spool.next()));
  EXPECT_EQ("7 " + large, text_of(*spool.next()));
  // The notice that was handed out stays as it is; the next loss gets a notice of its own.
  for (int i = 0; i < 2; ++i) add(&spool, large);
  ASSERT_TRUE(spool.commit());
  EXPECT_EQ("full 8-9 2", text_of(*spool.next()));
  spool.acknowledge(1);
  spool.acknowledge(7);
  spool.acknowledge(8);
  ASSERT_TRUE(spool.commit());
  spool.rewind();
  EXPECT_EQ("10 " + large, text_of(*spool.next()));
  EXPECT_EQ(8u, spool.given_up());
}

TEST(Spool, AnEventThatNeverFitsIsALossAmongTheOthers) {
  Spool spool(options(65536), now);
  add(&spool, "a");
  add(&spool, std::string(70000, 'x'));
  add(&spool, "b");
  ASSERT_TRUE(spool.commit());
  EXPECT_THAT(read(&spool), ElementsAre("1 a", "full 2-2 1", "3 b"));
}

TEST(Spool, GivesUpWhatWaitedTooLong) {
  Spool spool(options(), now);
  add_and_commit(&spool, {"a", "b"});
  g_now.boot_ms += 90'000;
  add_and_commit(&spool, {"c"});
  g_now.wall_ms += 1'000'000'000;  // somebody sets the clock
  ASSERT_TRUE(spool.commit());
  EXPECT_EQ(3u, spool.waiting());
  g_now.boot_ms += 20'000;
  ASSERT_TRUE(spool.commit());
  EXPECT_THAT(read(&spool), ElementsAre("old 1-2 2", "3 c"));
}

TEST(Spool, BelievesAWallClockOnlyWhenItCanBeRight) {
  {
    Spool spool(options(), now);
    add_and_commit(&spool, {"a"});
  }
  g_now = {"boot-2", 500, 5000};  // 1970, until the network tells
  {
    Spool spool(options(), now);
    add_and_commit(&spool, {"b"});
    EXPECT_EQ(2u, spool.waiting());
  }
  g_now = {"boot-3", 500, 1'800'000'000'000 + 200'000};
  Spool spool(options(), now);
  ASSERT_TRUE(spool.commit());
  EXPECT_THAT(read(&spool), ElementsAre("old 1-1 1", "2 b"));
}

TEST(Spool, IsBegunAnewWhenItIsDamaged) {
  fs::create_directories("/var/spool_test");
  std::ofstream(kPath) << std::string(100'000, 'x');
  Spool spool(options(), now);
  EXPECT_THAT(spool.problem(), testing::HasSubstr("damaged"));
  add_and_commit(&spool, {"a"});
  EXPECT_THAT(read(&spool), ElementsAre("1 a"));
  EXPECT_TRUE(fs::exists(std::string(kPath) + ".damaged"));
}

// A disk of its own, which can be filled.
class SpoolOnSmallDisk : public testing::Test {
 protected:
  SpoolOnSmallDisk() { fs::create_directories("/var/spool_test"); }
  ~SpoolOnSmallDisk() override { ::umount2("/var/spool_test", MNT_DETACH); }

  static void mount(const char *size) {
    ASSERT_EQ(0, ::mount("small", "/var/spool_test", "tmpfs", 0, size));
  }

  static void fill() {
    std::ofstream file("/var/spool_test/filler", std::ios::binary);
    const std::string block(4096, 'x');
    while (file.write(block.data(), 4096) && file.flush()) {
    }
  }
  static void free() { fs::remove("/var/spool_test/filler"); }
};

TEST_F(SpoolOnSmallDisk, ItsOwnSpaceIsReserved) {
  mount("size=1m");
  SpoolOptions reserving = options(256 << 10);
  reserving.reserve = true;
  Spool spool(reserving, now);
  ASSERT_EQ("", spool.problem());
  fill();
  const std::string payload(1000, 'x');
  for (int i = 0; i < 200; ++i) {
    add(&spool, payload);
    ASSERT_TRUE(spool.commit()) << i << spool.problem();
  }
  EXPECT_EQ(0u, spool.given_up());
  EXPECT_EQ(200u, read(&spool).size());
}

TEST_F(SpoolOnSmallDisk, StartsWithoutADisk) {
  mount("size=1m");
  fill();
  Spool spool(options(), now);
  add(&spool, "a");
  EXPECT_FALSE(spool.commit());
  EXPECT_NE("", spool.problem());
  EXPECT_EQ(std::nullopt, spool.next());
  EXPECT_FALSE(spool.reads());
  free();
  ASSERT_TRUE(spool.commit()) << spool.problem();
  EXPECT_THAT(read(&spool), ElementsAre("1 a"));
}

// Disks that are too small for the spool, and one that others fill: it never stops for good, and
// writes later what memory keeps meanwhile.
struct SmallDisk {
  const char *size;
  bool reserve;
  size_t payload;
  uint64_t least_heard;

  friend void PrintTo(const SmallDisk &disk, std::ostream *out) {
    *out << disk.size << (disk.reserve ? ", reserved" : "");
  }
};

class SpoolOutgrowsDisk : public SpoolOnSmallDisk, public testing::WithParamInterface<SmallDisk> {};

TEST_P(SpoolOutgrowsDisk, GoesOnAndCountsWhatItGivesUp) {
  mount(GetParam().size);
  SpoolOptions small = options();
  small.reserve = GetParam().reserve;
  Spool spool(small, now);
  const std::string payload(GetParam().payload, 'x');
  uint64_t heard = 0, next = 1;
  const auto commit_soon = [&spool] {
    for (int i = 0; i < 5; ++i) {
      if (spool.commit()) return true;
    }
    return false;
  };
  // The broker takes everything, in parts.
  const auto drain = [&] {
    for (size_t part = 1; part > 0;) {
      part = 0;
      while (const auto item = part < 100 ? spool.next() : std::nullopt) {
        const auto *loss = std::get_if<Loss>(&*item);
        EXPECT_EQ(next, loss != nullptr ? loss->first : std::get<Event>(*item).sequence);
        EXPECT_TRUE(loss == nullptr || loss->reason == Reason::kDisk);
        spool.acknowledge(next);
        next = loss != nullptr ? loss->last + 1 : next + 1;
        heard += loss != nullptr ? 0 : 1;
        ++part;
      }
      ASSERT_TRUE(commit_soon()) << spool.problem();
    }
  };
  uint64_t appended = 0;
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 20; ++i, ++appended) add(&spool, payload);
    ASSERT_TRUE(commit_soon()) << round << spool.problem();
    fill();
    for (int i = 0; i < 2000; ++i, ++appended) {
      add(&spool, payload);
      if (i % 25 == 0) spool.commit();
    }
    free();
    ASSERT_TRUE(commit_soon()) << round << spool.problem();
    EXPECT_EQ(appended, spool.last_sequence());
    drain();
    EXPECT_EQ(appended, heard + spool.given_up());
    EXPECT_EQ(0u, spool.waiting());
  }
  EXPECT_LT(GetParam().least_heard, heard);
  EXPECT_LT(0u, spool.given_up());
}

INSTANTIATE_TEST_SUITE_P(
    , SpoolOutgrowsDisk,
    testing::Values(SmallDisk{"size=400k", false, 100, 20}, SmallDisk{"size=400k", false, 1000, 20},
                    SmallDisk{"size=400k", true, 100, 20}, SmallDisk{"size=400k", true, 1000, 20},
                    SmallDisk{"size=1m", false, 2100, 20}, SmallDisk{"size=1m", true, 4000, 20},
                    SmallDisk{"size=4m", false, 300, 1000}),
    [](const testing::TestParamInfo<SmallDisk> &test) {
      const SmallDisk &disk = test.param;
      return std::string(disk.size).substr(5) + (disk.reserve ? "_reserved_" : "_") +
             std::to_string(disk.payload);
    });

// Random work beside a model: every event comes, in order, or is counted as lost.
TEST(SpoolModel, LosesNothingUncounted) {
  std::mt19937 random(test::seed());
  const auto below = [&random](uint32_t limit) { return random() % limit; };
  auto spool = std::make_unique<Spool>(options(65536), now);
  uint64_t appended = 0, last_received = 0;
  std::set<uint64_t> received;
  std::map<uint64_t, Loss> losses;  // as they were last handed out
  const auto notice = [&losses](const Loss &loss) { losses.insert_or_assign(loss.first, loss); };
  std::vector<uint64_t> in_flight;
  for (uint32_t step = 0; step < 3000 * test::soak_factor(); ++step) {
    switch (below(8)) {
      case 0:
      case 1:
      case 2:
        add(spool.get(), std::string(below(3000), 'x'));
        ++appended;
        break;
      case 3:
        ASSERT_TRUE(spool->commit()) << spool->problem();
        break;
      case 4:
      case 5: {
        const auto item = in_flight.size() < 16 ? spool->next() : std::nullopt;
        if (!item) break;
        if (const auto *event = std::get_if<Event>(&*item)) {
          received.insert(event->sequence);
          EXPECT_LT(last_received, event->sequence);
          last_received = event->sequence;
          in_flight.push_back(event->sequence);
        } else {
          const Loss &loss = std::get<Loss>(*item);
          notice(loss);
          in_flight.push_back(loss.first);
        }
        break;
      }
      case 6:
        if (!in_flight.empty()) {
          const size_t which = below(static_cast<uint32_t>(in_flight.size()));
          spool->acknowledge(in_flight[which]);
          in_flight.erase(in_flight.begin() + static_cast<ptrdiff_t>(which));
        }
        break;
      case 7:
        if (below(20) != 0) break;
        // The connection ends, or the process.
        ASSERT_TRUE(spool->commit());
        in_flight.clear();
        last_received = 0;
        if (below(2) == 0) {
          spool->rewind();
        } else {
          spool.reset();
          spool = std::make_unique<Spool>(options(65536), now);
        }
        break;
    }
  }
  ASSERT_TRUE(spool->commit());
  spool->rewind();
  while (const auto item = spool->next()) {
    if (const auto *event = std::get_if<Event>(&*item)) {
      received.insert(event->sequence);
    } else {
      notice(std::get<Loss>(*item));
    }
  }
  EXPECT_EQ(appended, spool->last_sequence());
  std::set<uint64_t> noticed;
  uint64_t counted = 0;
  for (const auto &[first, loss] : losses) {
    for (uint64_t i = loss.first; i <= loss.last; ++i) noticed.insert(i);
    counted += loss.count;
  }
  EXPECT_EQ(spool->given_up(), counted);
  EXPECT_LT(0u, counted);
  // An event that was handed out and came back may have been given up, too.
  uint64_t missed = 0;
  for (uint64_t i = 1; i <= appended; ++i) {
    if (received.contains(i)) continue;
    EXPECT_TRUE(noticed.contains(i)) << i;
    ++missed;
  }
  EXPECT_LE(missed, counted);
}

TEST(Spool, KeepsEverythingOfAnEvent) {
  const Event event{.boot = g_now.boot,
                    .wall_ms = 1'234'567'890'123,
                    .topic = "a/\xc3\xa9",
                    .payload = std::string("\0\xff{}", 4),
                    .qos = 2,
                    .retain = true};
  {
    Spool spool(options(), now);
    spool.append(event);
    spool.append({.boot = g_now.boot, .topic = "t", .payload = "", .qos = 0});
    ASSERT_TRUE(spool.commit());
  }
  Spool spool(options(), now);
  const auto item = spool.next();
  ASSERT_TRUE(item);
  const auto &kept = std::get<Event>(*item);
  EXPECT_EQ(event.boot, kept.boot);
  EXPECT_EQ(event.wall_ms, kept.wall_ms);
  EXPECT_EQ(event.topic, kept.topic);
  EXPECT_EQ(event.payload, kept.payload);
  EXPECT_EQ(2, kept.qos);
  EXPECT_TRUE(kept.retain);
  EXPECT_THAT(read(&spool), ElementsAre("2 "));
}

TEST(Spool, WhatTheBrokerSaysTwiceCountsOnce) {
  Spool spool(options(), now);
  add_and_commit(&spool, {"a", "b", "c"});
  read(&spool);
  for (const uint64_t sequence : {1, 1}) spool.acknowledge(sequence);
  for (const uint64_t sequence : {2, 2}) spool.refuse(sequence);
  ASSERT_TRUE(spool.commit());
  EXPECT_EQ(1u, spool.waiting());
  EXPECT_EQ(1u, spool.given_up());
  spool.acknowledge(1);
  spool.refuse(1);
  ASSERT_TRUE(spool.commit());
  EXPECT_EQ(1u, spool.waiting());
  EXPECT_EQ(1u, spool.given_up()) << "what the broker has is no loss";
  EXPECT_THAT(read(&spool), ElementsAre("refused 2-2 1"));
  spool.refuse(2);  // the notice itself
  ASSERT_TRUE(spool.commit());
  spool.rewind();
  EXPECT_THAT(read(&spool), ElementsAre("3 c"));
}

TEST(Spool, WhatIsOnItsWayIsNotGivenUpForSomethingNew) {
  const std::string payload(2000, 'x');
  Spool spool(options(65536), now);
  for (int i = 0; i < 30; ++i) add(&spool, payload);
  ASSERT_TRUE(spool.commit());
  EXPECT_EQ(30u, read(&spool).size());
  add(&spool, payload);
  ASSERT_TRUE(spool.commit());
  EXPECT_EQ(31u, spool.waiting()) << "there is nothing else to give up";
  EXPECT_EQ(0u, spool.given_up());
  add(&spool, "new");
  ASSERT_TRUE(spool.commit());
  EXPECT_THAT(read(&spool), ElementsAre("full 31-31 1", "32 new"));
  for (uint64_t i = 1; i <= 32; ++i) spool.acknowledge(i);
  ASSERT_TRUE(spool.commit());
  EXPECT_EQ(0u, spool.waiting());
  EXPECT_EQ(0u, spool.waiting_bytes());
}

TEST(Spool, AcknowledgementsInAnyOrderSurviveARestart) {
  {
    Spool spool(options(), now);
    add_and_commit(&spool, {"1", "2", "3", "4", "5", "6"});
    read(&spool);
    for (const uint64_t sequence : {5, 2, 3, 6}) spool.acknowledge(sequence);
    ASSERT_TRUE(spool.commit());
    EXPECT_EQ(2u, spool.waiting());
  }
  Spool spool(options(), now);
  EXPECT_EQ(2u, spool.waiting());
  EXPECT_THAT(read(&spool), ElementsAre("1 1", "4 4"));
  spool.acknowledge(4);
  spool.rewind();
  ASSERT_TRUE(spool.commit());
  EXPECT_THAT(read(&spool), ElementsAre("1 1"));
  EXPECT_EQ(6u, spool.last_sequence()) << "the last number was used, though its event is gone";
}

TEST_F(SpoolOnSmallDisk, SaysHowMuchOfItsSpaceItCannotTake) {
  mount("size=4m");
  SpoolOptions reserving = options();
  reserving.reserve = true;
  const auto take_all_but = [](uintmax_t bytes) {
    fill();
    fs::resize_file("/var/spool_test/filler", fs::file_size("/var/spool_test/filler") - bytes);
  };
  take_all_but(700'000);
  {
    Spool spool(reserving, now);
    EXPECT_THAT(spool.problem(), testing::HasSubstr("bytes can be taken now"));
    EXPECT_THAT(spool.problem(), testing::HasSubstr("of 1310720"));
    add_and_commit(&spool, {"a"});
  }
  free();
  Spool spool(reserving, now);
  EXPECT_EQ("", spool.problem()) << "the next start takes the rest";
  EXPECT_LE(1'310'720u, fs::file_size(kPath));
  EXPECT_THAT(read(&spool), ElementsAre("1 a"));
}

TEST_F(SpoolOnSmallDisk, ADamagedFileIsRemovedWhereTwoHaveNoRoom) {
  mount("size=1m");
  std::ofstream(kPath) << std::string(100'000, 'x');
  Spool spool(options(), now);
  EXPECT_THAT(spool.problem(), testing::HasSubstr("damaged"));
  EXPECT_FALSE(fs::exists(std::string(kPath) + ".damaged"));
  add_and_commit(&spool, {"a"});
  EXPECT_THAT(read(&spool), ElementsAre("1 a"));
}

}  // namespace
