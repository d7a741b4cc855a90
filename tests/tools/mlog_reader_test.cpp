// The library below the tool: rings of any shape, read in both directions and merged.

#include <gmock/gmock.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <fstream>
#include <random>
#include <tuple>

#include "filter.h"
#include "merge.h"
#include "msgapi/ringlog.h"
#include "ring_reader.h"
#include "support/soak.h"
#include "time_text.h"
#include "tools/mlog_support.h"

namespace {

using testing::ElementsAre;
using testing::Pointwise;
using namespace test::mlog;

std::vector<std::string> texts_of(mlog::Cursor cursor) {
  std::vector<std::string> texts;
  while (cursor.next()) texts.emplace_back(cursor.entry().text);
  return texts;
}

// Writes random lines to a ring and knows which of them are still there.
class RandomRing {
 public:
  RandomRing(const std::string &path, std::mt19937 *random) : random_(*random) {
    std::filesystem::remove(path);
    max_size_ = 4096 + static_cast<uint32_t>(random_() % (random_() % 3 == 0 ? 300000 : 20000));
    target_ = {max_size_, MlogFileConstructor(path.c_str(), max_size_)};
  }
  ~RandomRing() { MlogFileDestructor(target_.file); }
  RandomRing(const RandomRing &) = delete;
  RandomRing &operator=(const RandomRing &) = delete;

  void write(const std::string &module) {
    // Now and then lines of one moment swap places, and rarely the device starts anew.
    if (random_() % 300 == 0 && uptime_ms_ > 60000) uptime_ms_ = random_() % 1000;
    uptime_ms_ += 1 + random_() % (random_() % 50 == 0 ? 30000 : 20);
    std::string text(random_() % 120, 'a');
    for (char &c : text) c = static_cast<char>('a' + random_() % 26);
    if (random_() % 20 == 0) text += "\n\tmore of it";
    std::string buffer =
        line(static_cast<int64_t>(uptime_ms_ - random_() % 3), text, "INFO", module);
    const std::string copy = buffer.substr(0, buffer.size() - 1);
    MlogFileWrite(&target_, buffer.data(), static_cast<uint32_t>(buffer.size()));
    const long end = target_.file->offset;
    lines_.push_back({target_.file->overturn, end - static_cast<long>(buffer.size()), copy});
  }

  std::vector<std::string> kept() const {
    std::vector<std::string> texts;
    for (const Line &line : lines_) {
      const bool older =
          line.turn == target_.file->overturn - 1 && line.begin >= target_.file->offset;
      if (older || line.turn == target_.file->overturn) texts.push_back(line.text);
    }
    return texts;
  }

 private:
  struct Line {
    long turn;
    long begin;
    std::string text;
  };
  std::mt19937 &random_;
  uint32_t max_size_;
  MlogTarget target_;
  uint64_t uptime_ms_ = 100;
  std::vector<Line> lines_;
};

// At the end of the older turn there may be continuation lines of a line that was there a turn
// before. Nothing tells them from the last line's own.
bool same(const std::string &expected, const std::string &got) {
  return expected == got || got.starts_with(expected + "\n\tmore of it");
}

MATCHER(IsTheSame, "") {
  return same(std::get<1>(arg), std::get<0>(arg));
}

TEST(RingCursor, FindsWhatWasWrittenInBothDirections) {
  std::mt19937 random(test::seed());
  for (uint32_t round = 0; round < 20 * test::soak_factor(); ++round) {
    RandomRing ring("/var/ring.log", &random);
    for (auto i = random() % 8000; i > 0; --i) ring.write("wan");
    const std::vector<std::string> expected = ring.kept();

    const mlog::RingFile file(std::string("/var/ring.log"));
    const mlog::Layout layout = mlog::look_at(file);
    EXPECT_TRUE(layout.problems.empty());
    ASSERT_THAT(texts_of(mlog::Cursor::forwards(&file, layout, 0)),
                Pointwise(IsTheSame(), expected))
        << "round " << round;
    std::vector<std::string> backwards = texts_of(mlog::Cursor::backwards(&file, layout));
    std::reverse(backwards.begin(), backwards.end());
    ASSERT_THAT(backwards, Pointwise(IsTheSame(), expected)) << "round " << round;

    // From any place on.
    mlog::Cursor cursor = mlog::Cursor::backwards(&file, layout);
    const size_t left = random() % (expected.size() + 1);
    for (size_t i = 0; i < left; ++i) ASSERT_TRUE(cursor.next());
    if (left == 0) continue;
    EXPECT_THAT(texts_of(mlog::Cursor::from(&file, layout, cursor.place())),
                Pointwise(IsTheSame(), std::vector(expected.end() - static_cast<ptrdiff_t>(left),
                                                   expected.end())));
  }
}

// The keys of the merge: the boot (older boots have greater numbers), the uptime, the file.
struct Sorted {
  unsigned boot;
  int64_t key_ms;
  size_t file;
  std::string text;
};

TEST(Merge, OfRandomFilesEqualsSort) {
  std::mt19937 random(test::seed());
  std::filesystem::create_directory("/var/logs");
  for (uint32_t round = 0; round < 6 * test::soak_factor(); ++round) {
    std::vector<std::string> paths;
    std::vector<Sorted> expected;
    for (size_t i = 0, count = 1 + random() % 6; i < count; ++i) {
      paths.push_back("/var/logs/m" + std::to_string(i) + ".log");
      RandomRing ring(paths.back(), &random);
      for (auto n = random() % 4000; n > 0; --n) ring.write("m" + std::to_string(i));

      std::vector<Sorted> own;
      int64_t key_ms = 0;
      unsigned restarts = 0;
      for (const std::string &text : ring.kept()) {
        const int64_t uptime_ms = std::stoll(text.substr(1, 11));
        if (uptime_ms < key_ms - mlog::kSmallStep_ms) {
          ++restarts;
          key_ms = uptime_ms;
        }
        key_ms = std::max(key_ms, uptime_ms);
        own.push_back({restarts, key_ms, i, text});
      }
      for (Sorted &entry : own) entry.boot = restarts - entry.boot;
      expected.insert(expected.end(), own.begin(), own.end());
    }
    std::stable_sort(expected.begin(), expected.end(), [](const Sorted &a, const Sorted &b) {
      return std::tuple(UINT32_MAX - a.boot, a.key_ms, a.file) <
             std::tuple(UINT32_MAX - b.boot, b.key_ms, b.file);
    });

    mlog::Clocks clocks;
    clocks.uptime_ms = INT64_MAX / 2;
    std::vector<mlog::Source> sources;
    for (const std::string &path : paths) sources.push_back(mlog::open_source(path, clocks, false));
    mlog::Merge merge = mlog::merge_all(sources, true);
    for (size_t i = 0; i < expected.size(); ++i) {
      ASSERT_TRUE(merge.next());
      const std::string got(merge.cursor().entry().text);
      ASSERT_TRUE(same(expected[i].text, got)) << expected[i].text << ", not " << got;
      ASSERT_EQ(expected[i].boot, merge.boot());
    }
    ASSERT_FALSE(merge.next());
  }
}

TEST(Merge, FindsWhatIsOverwrittenWhileItReads) {
  MlogTarget target = {200000, MlogFileConstructor("/var/ring.log", 200000)};
  const auto write = [&](int from, int to) {
    for (int i = from; i < to; ++i) {
      std::string text = line(i, "number " + std::to_string(i) + " " + std::string(100, 'x'));
      MlogFileWrite(&target, text.data(), static_cast<uint32_t>(text.size()));
    }
  };
  write(0, 2000);
  const mlog::RingFile file(std::string("/var/ring.log"));
  const mlog::Layout layout = mlog::look_at(file);
  mlog::Cursor forwards = mlog::Cursor::forwards(&file, layout, 0);
  mlog::Cursor backwards = mlog::Cursor::backwards(&file, layout);
  ASSERT_TRUE(forwards.next());
  ASSERT_TRUE(backwards.next());
  const int64_t first = forwards.entry().uptime_ms;
  write(2000, 2900);  // overwrites half of what the cursors have still to read

  int64_t last = first;
  int count = 0;
  for (; forwards.next(); ++count) {
    ASSERT_TRUE(forwards.entry().has_head);
    ASSERT_LT(last, forwards.entry().uptime_ms) << "whole lines, in their order";
    last = forwards.entry().uptime_ms;
  }
  EXPECT_EQ(1999, last);
  EXPECT_LT(count, 1400);
  EXPECT_TRUE(forwards.missed());
  while (backwards.next()) {
    ASSERT_GT(last, backwards.entry().uptime_ms);
    last = backwards.entry().uptime_ms;
  }
  EXPECT_TRUE(backwards.missed());
  MlogFileDestructor(target.file);
}

TEST(Follower, GoesThroughTurnsAndFilesThatAreBegunAnew) {
  const auto put = [](const std::string &bytes) {
    std::ofstream file("/var/ring.log", std::ios::in | std::ios::out);
    file << bytes;
  };
  std::ofstream("/var/ring.log") << header(999, 63 + 27) << line(10, "a");
  const auto file = std::make_shared<mlog::RingFile>(std::string("/var/ring.log"));
  const mlog::Layout layout = mlog::look_at(*file, true);
  mlog::Follower follower(file, &layout);
  std::vector<std::string> texts;
  const auto poll = [&] {
    texts.clear();
    follower.poll(&texts);
    for (std::string &text : texts) text.erase(0, text.find(':') + 1);
    return texts;
  };

  // Turn number 1 comes after number 999, whose end has been read already.
  put(header(1, 63 + 27) + line(20, "b"));
  EXPECT_THAT(poll(), ElementsAre("b"));
  put(header(1, 63 + 54) + line(20, "b") + line(30, "c"));
  EXPECT_THAT(poll(), ElementsAre("c"));
  // A line that the header does not cover yet is not read.
  put(header(1, 63 + 54) + line(20, "b") + line(30, "c") + line(40, "d"));
  EXPECT_THAT(poll(), ElementsAre());
  // A line that did not fit on the disk is taken back, and comes later.
  put(header(1, 63 + 81));
  EXPECT_THAT(poll(), ElementsAre("d"));
  put(header(1, 63 + 54));
  EXPECT_THAT(poll(), ElementsAre());
  put(header(1, 63 + 81) + line(20, "b") + line(30, "c") + line(50, "e"));
  EXPECT_THAT(poll(), ElementsAre("e"));
  EXPECT_FALSE(follower.missed());
  // Two turns at once.
  put(header(3, 63 + 27) + line(70, "g"));
  poll();
  EXPECT_TRUE(follower.missed());
  // Begun anew.
  put(header(0, 63 + 27) + line(80, "h"));
  EXPECT_EQ("h", poll().front());
}

TEST(TimeText, IsReadAndWrittenBeyond2038) {
  if (sizeof(time_t) < 8) GTEST_SKIP() << "the C library's local times end in 2038 here";
  ::setenv("TZ", "UTC-1", 1);  // an hour ahead
  ::tzset();
  mlog::Clocks clocks;
  clocks.now_ms = 4102444800000 + 3 * 3600 * 1000;  // 2100-01-01 03:00 UTC
  clocks.boot_ms = clocks.now_ms - 1000;
  const std::pair<const char *, int64_t> cases[] = {
      {"2100-01-01", 4102444800000 - 3600000},
      {"2100-01-01T03:00:00Z", clocks.now_ms},
      {"2100-01-01 04:00:00.250", clocks.now_ms + 250},
      {"04:00", clocks.now_ms},
      {"today", 4102444800000 - 3600000},
      {"yesterday", 4102444800000 - 3600000 - 86400000},
      {"now", clocks.now_ms},
      {"boot", clocks.boot_ms},
      {"-5min", clocks.now_ms - 300000},
      {"-1h30min", clocks.now_ms - 5400000},
      {"2 days ago", clocks.now_ms - 2 * 86400000},
      {"@2147483648", 2147483648000},
      {"@2147483648.5", 2147483648500},
      {"2038-01-19T03:14:08Z", 2147483648000},
  };
  for (const auto &[text, expected] : cases) {
    EXPECT_EQ(expected, mlog::parse_time(text, clocks, false)) << text;
  }
  for (const char *bad :
       {"", "-", "5", "-5", "-5 parsecs", "2100-02-30", "2100-1", "24:00", "12:60", "2100-01-01 x",
        "2100-01-01T03:00Zz", "tomorrow", "@", "5min", "99999-01-01"}) {
    EXPECT_EQ(std::nullopt, mlog::parse_time(bad, clocks, false)) << bad;
  }
  EXPECT_EQ("2038-01-19T03:14:08.001Z", mlog::format_iso_time(2147483648001));
  EXPECT_EQ("2038-01-19 04:14:08.000", mlog::format_time(2147483648000, false));
  EXPECT_EQ("2100-01-01 03:00:00.000", mlog::format_time(clocks.now_ms, true));
  EXPECT_EQ("1969-12-31T23:59:59.999Z", mlog::format_iso_time(-1));
}

TEST(Levels, AreNamesNumbersAndRanges) {
  const std::tuple<const char *, uint32_t, uint32_t> cases[] = {
      {"WARN", 0, 4}, {"err", 0, 2},        {"8", 0, 8},    {"none", 0, 0},
      {"0", 0, 0},    {"ERRO..WARN", 2, 4}, {"8..1", 1, 8}, {"fatal..2", 1, 2},
  };
  for (const auto &[text, from, to] : cases) {
    const auto levels = mlog::parse_levels(text);
    ASSERT_TRUE(levels) << text;
    EXPECT_EQ(from, levels->from) << text;
    EXPECT_EQ(to, levels->to) << text;
  }
  for (const char *bad : {"", "LOUD", "3", "..", "WARN..", "..WARN", "WARN...INFO", "-1"}) {
    EXPECT_FALSE(mlog::parse_levels(bad)) << bad;
  }
}

}  // namespace
