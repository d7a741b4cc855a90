// The spool when its file turns out to be damaged, and that it does not touch the disk without
// anything to write.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "msgbridge/spool.h"
#include "servers/msgbridge/spool_support.h"
#include "support/largest_file.h"

namespace {

namespace fs = std::filesystem;

using msgbridge::Event;
using msgbridge::Loss;
using msgbridge::Reason;
using msgbridge::Spool;
using msgbridge::SpoolOptions;
using test::g_now;
using test::now;
using testing::HasSubstr;

const std::string kDamagedPath = "/var/damaged/spool.db";

SpoolOptions damaged_options() {
  return test::spool_options(kDamagedPath, SpoolOptions().bytes);
}

// More than the database keeps in memory.
void add(Spool *spool, int count) {
  for (int i = 0; i < count; ++i) {
    spool->append({.boot = g_now.boot, .topic = "t", .payload = std::string(2000, 'x')});
  }
  ASSERT_TRUE(spool->commit()) << spool->problem();
}

// Damages all pages of the file and of its log except the first.
void damage() {
  for (const char *part : {"", "-wal"}) {
    const int fd = ::open((kDamagedPath + part).c_str(), O_WRONLY);
    struct stat status {};
    ASSERT_TRUE(fd >= 0 && ::fstat(fd, &status) == 0);
    const std::string garbage(4096, '\x7f');
    for (off_t at = 4096; at < status.st_size; at += 4096) {
      ASSERT_EQ(4096, ::pwrite(fd, garbage.data(), garbage.size(), at));
    }
    ::close(fd);
  }
}

// Which numbers came, and which losses were reported.
struct Heard {
  std::set<uint64_t> events;
  std::vector<Loss> losses;
};

void hear(Spool *spool, Heard *heard) {
  while (const auto item = spool->next()) {
    if (const auto *event = std::get_if<Event>(&*item)) {
      EXPECT_TRUE(heard->events.empty() || *heard->events.rbegin() < event->sequence);
      heard->events.insert(event->sequence);
    } else {
      heard->losses.push_back(std::get<Loss>(*item));
    }
  }
}

size_t open_files() {
  return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

TEST(SpoolDamage, IsNoticedWhileReadingAndWhatIsLostIsCounted) {
  Spool spool(damaged_options(), now);
  const std::string stream = spool.stream();
  add(&spool, 600);
  for (int i = 0; i < 8; ++i) ASSERT_TRUE(spool.next());
  spool.acknowledge(1);
  ASSERT_TRUE(spool.commit());
  spool.acknowledge(2);
  spool.refuse(3);  // which is no damage
  spool.acknowledge(4);
  spool.refuse(4);  // the broker has it all the same
  damage();

  Heard heard;
  hear(&spool, &heard);
  EXPECT_FALSE(spool.reads());
  EXPECT_THAT(spool.problem(), HasSubstr("damaged, is begun anew; 597 events are lost"));
  EXPECT_EQ(1u, spool.begun_anew());
  EXPECT_TRUE(heard.losses.empty()) << "not before what was on its way is forgotten";
  ASSERT_TRUE(spool.commit());
  spool.rewind();
  add(&spool, 2);
  hear(&spool, &heard);

  EXPECT_EQ(stream, spool.stream());
  EXPECT_THAT(heard.losses, testing::ElementsAre(Loss{3, 3, 1, Reason::kRefused},
                                                 Loss{4, 600, 596, Reason::kDamaged}));
  EXPECT_TRUE(heard.events.contains(601) && heard.events.contains(602));
  EXPECT_EQ(597u, spool.given_up());
  EXPECT_EQ(2u, spool.waiting());
  EXPECT_TRUE(fs::exists(kDamagedPath + ".damaged"));
}

TEST(SpoolDamage, IsNoticedWhileWritingAndNothingNewIsLost) {
  Spool spool(damaged_options(), now);
  add(&spool, 600);
  const size_t files = open_files();
  for (uint32_t round = 1; round <= 5; ++round) {
    damage();
    // Writes until a damaged page is touched; some events may still fit beside these pages.
    for (int i = 0; i < 50 && spool.begun_anew() < round; ++i) add(&spool, 20);
    ASSERT_EQ(round, spool.begun_anew());
    add(&spool, 600);
  }
  EXPECT_EQ(files, open_files()) << "the damaged files are closed";

  Heard heard;
  hear(&spool, &heard);
  uint64_t lost = 0;
  for (const Loss &loss : heard.losses) {
    EXPECT_EQ(Reason::kDamaged, loss.reason);
    lost += loss.count;
  }
  EXPECT_EQ(spool.last_sequence(), lost + heard.events.size());
  EXPECT_EQ(lost, spool.given_up());
  EXPECT_LE(600u, heard.events.size());
}

// What another program does with the file.
int done_by_another(const char *sql) {
  sqlite3 *database = nullptr;
  int result = sqlite3_open(kDamagedPath.c_str(), &database);
  if (result == SQLITE_OK) result = sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
  sqlite3_close(database);
  return result;
}

TEST(SpoolDamage, AFileThatLacksSomethingIsDamagedAndAnotherProgramsIsNot) {
  const struct {
    const char *done;
    const char *problem;
    bool begins_anew;
  } kFiles[] = {
      {"DROP TABLE lost", "was damaged, is begun anew", true},
      {"DELETE FROM state", "was damaged, is begun anew", true},
      {"PRAGMA user_version=2", "another release; remove it or name another file", false},
      {"PRAGMA application_id=7; PRAGMA user_version=0", "another program; name another file",
       false},
  };
  for (const auto &each : kFiles) {
    SCOPED_TRACE(each.done);
    fs::remove_all("/var/damaged");
    {
      Spool spool(damaged_options(), now);
      add(&spool, 1);
    }
    ASSERT_EQ(SQLITE_OK, done_by_another(each.done));
    Spool spool(damaged_options(), now);
    EXPECT_THAT(spool.problem(), HasSubstr(each.problem));
    EXPECT_EQ(each.begins_anew, spool.commit());
    EXPECT_EQ(each.begins_anew, fs::exists(kDamagedPath + ".damaged"));
    if (!each.begins_anew) continue;
    add(&spool, 1);
    Heard heard;
    hear(&spool, &heard);
    EXPECT_THAT(heard.events, testing::ElementsAre(1));
  }
}

TEST(SpoolAtRest, WritesNothing) {
  Spool spool(damaged_options(), now);
  add(&spool, 3);
  const auto size = [] { return fs::file_size(kDamagedPath + "-wal"); };
  const auto time = [] { return fs::last_write_time(kDamagedPath + "-wal"); };
  const auto size_before = size();
  const auto time_before = time();
  for (int i = 0; i < 3; ++i) {
    g_now.boot_ms += 20'000;
    ASSERT_TRUE(spool.commit());
  }
  EXPECT_EQ(size_before, size());
  EXPECT_EQ(time_before, time());
  g_now.boot_ms += 60'000;
  ASSERT_TRUE(spool.commit());
  EXPECT_EQ(3u, spool.given_up()) << "but for what is too old";
}

TEST(SpoolLosses, AreToldOnceAndInOrder) {
  Spool spool(damaged_options(), now);
  Heard heard;
  uint64_t refused = 0;
  for (int round = 0; round < 2000; ++round) {
    spool.append({.boot = g_now.boot, .topic = "t", .payload = "x"});
    ASSERT_TRUE(spool.commit());
    const auto item = spool.next();
    ASSERT_TRUE(item);
    if (std::holds_alternative<Loss>(*item)) {
      const auto &loss = std::get<Loss>(*item);
      heard.losses.push_back(loss);
      spool.acknowledge(loss.first);
    } else if (round % 3 == 0) {
      spool.refuse(std::get<Event>(*item).sequence);
      ++refused;
    } else {
      spool.acknowledge(std::get<Event>(*item).sequence);
    }
  }
  ASSERT_TRUE(spool.commit());
  for (const auto &loss : heard.losses) EXPECT_EQ(Reason::kRefused, loss.reason);
  const uint64_t told_before = heard.losses.size();
  hear(&spool, &heard);
  uint64_t told = 0;
  std::set<uint64_t> firsts;
  for (const auto &loss : heard.losses) {
    told += loss.count;
    EXPECT_TRUE(firsts.insert(loss.first).second);
    EXPECT_TRUE(firsts.upper_bound(loss.first) == firsts.end());
  }
  EXPECT_EQ(refused, told);
  EXPECT_LT(100u, told_before);
}

TEST(SpoolDamage, AFileThatAnotherHoldsIsNotDamaged) {
  { Spool spool(damaged_options(), now); }
  sqlite3 *other = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(kDamagedPath.c_str(), &other));
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr));
  Spool spool(damaged_options(), now);
  EXPECT_THAT(spool.problem(), HasSubstr("locked"));
  EXPECT_FALSE(spool.commit());
  sqlite3_close(other);
  EXPECT_TRUE(spool.commit()) << spool.problem();
  EXPECT_FALSE(fs::exists(kDamagedPath + ".damaged"));
  add(&spool, 1);
}

TEST(SpoolDamage, ADiskThatFailsIsAskedAgain) {
  Spool spool(damaged_options(), now);
  add(&spool, 3);
  {
    const test::LargestFile nothing(1);
    spool.append({.boot = g_now.boot, .topic = "t", .payload = "x"});
    EXPECT_FALSE(spool.commit());
    EXPECT_THAT(spool.problem(), HasSubstr("I/O error"));
    EXPECT_FALSE(spool.reads());
    EXPECT_FALSE(spool.commit());
  }
  ASSERT_TRUE(spool.commit()) << spool.problem();
  Heard heard;
  hear(&spool, &heard);
  EXPECT_THAT(heard.events, testing::ElementsAre(1, 2, 3, 4));
  EXPECT_EQ(0u, spool.begun_anew());
}

TEST(SpoolDamage, AnotherSpoolInItsPlaceIsNotItsOwn) {
  fs::create_directories("/var/damaged");
  {
    Spool other(damaged_options(), now);
    add(&other, 9);
  }
  fs::rename("/var/damaged", "/var/other");
  Spool spool(damaged_options(), now);
  const std::string stream = spool.stream();
  add(&spool, 3);
  {
    const test::LargestFile nothing(1);
    spool.append({.boot = g_now.boot, .topic = "t", .payload = "x"});
    EXPECT_FALSE(spool.commit());
  }
  fs::remove_all("/var/damaged");
  fs::rename("/var/other", "/var/damaged");
  ASSERT_TRUE(spool.commit()) << spool.problem();
  spool.rewind();
  Heard heard;
  hear(&spool, &heard);
  EXPECT_EQ(stream, spool.stream());
  EXPECT_THAT(heard.losses, testing::ElementsAre(Loss{1, 3, 3, Reason::kDamaged}));
  EXPECT_THAT(heard.events, testing::ElementsAre(4)) << "none of the other one's";
  EXPECT_TRUE(fs::exists(kDamagedPath + ".damaged"));
}

}  // namespace
