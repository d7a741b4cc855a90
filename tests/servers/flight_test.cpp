#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <random>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "flight/reader.h"
#include "flight/recorder.h"
#include "support/fuzz_target.h"
#include "support/soak.h"

namespace {

using flight::Entry;
using flight::Kind;
using flight::Loss;
using flight::Reader;
using flight::Recorder;
using testing::HasSubstr;

const std::string kPath = "/var/run/flight_test";

using Header = std::array<char, flight::kHeaderSize>;

Header header_of(uint32_t value) {
  Header header;
  for (size_t i = 0; i < header.size(); i += sizeof value) {
    std::memcpy(header.data() + i, &value, sizeof value);
  }
  return header;
}

// Records a message of which every byte follows from `value`.
void record_message(Recorder *recorder, uint32_t value) {
  recorder->tick();
  const Header header = header_of(value);
  const std::string body(value % 301, static_cast<char>(value));
  recorder->accepted(value, value + 1, header.data(), static_cast<uint32_t>(body.size()), body);
}

// The message's value. Fails the test when a byte is not what it was.
uint32_t check_message(const Entry &entry, uint32_t body_limit) {
  const uint32_t value = entry.record.from;
  const Header header = header_of(value);
  EXPECT_EQ(entry.record.to, value + 1);
  EXPECT_EQ(entry.record.a, value % 301);
  EXPECT_EQ(0, std::memcmp(entry.header.data(), header.data(), header.size()));
  EXPECT_EQ(entry.text(), std::string(std::min(value % 301, body_limit), static_cast<char>(value)));
  return value;
}

std::vector<char> file_bytes(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Why `read` throws; "" when it does not.
template <typename Read>
std::string refusal(Read read) {
  try {
    read();
  } catch (const std::runtime_error &error) {
    return error.what();
  }
  return "";
}

// Shared by two processes.
struct Shared {
  std::atomic<uint64_t> count = 0;
  std::atomic<bool> done = false;
};

Shared *share() {
  void *memory =
      ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return new (memory) Shared;
}

TEST(FlightRecorder, KeepsTheClockAndTheFateOfAMessage) {
  Recorder recorder(kPath, flight::kLeastRing, 5);
  const uint64_t message = recorder.accepted(1, 2, header_of(7).data(), 9, {"123456789", 9});
  recorder.delivered(message, 1, 2, 0x1234, 99);
  recorder.lost(Loss::kQueueFull, message, 1, 3, 0x1234, 99);

  Reader reader = Reader::follow(kPath);
  Entry entry;
  ASSERT_EQ(Reader::Next::kEntry, reader.next(&entry));
  EXPECT_EQ(Kind::kClock, entry.kind());
  EXPECT_NEAR(static_cast<double>(::time(nullptr)),
              static_cast<double>(reader.wall_ns(entry.record.time_ns) / 1'000'000'000u), 2);

  ASSERT_EQ(Reader::Next::kEntry, reader.next(&entry));
  EXPECT_EQ(entry.record.number, message);
  EXPECT_EQ(entry.text(), "12345");
  for (const Loss loss : {Loss::kNone, Loss::kQueueFull}) {
    ASSERT_EQ(Reader::Next::kEntry, reader.next(&entry));
    EXPECT_EQ(loss, entry.loss());
    EXPECT_EQ(entry.record.to, loss == Loss::kNone ? 2u : 3u);
    EXPECT_EQ(entry.record.about, message);
    EXPECT_EQ(entry.record.a, 0x1234u);
    EXPECT_EQ(entry.record.b, 99u);
  }
  EXPECT_EQ(Reader::Next::kNothing, reader.next(&entry));
}

TEST(FlightRecorder, MovesTheOldFileAsideAndNobodyElseMayReadTheNewOne) {
  struct stat status {};
  {
    Recorder first(kPath, flight::kLeastRing, 0);
    record_message(&first, 1);
  }
  Reader follower = Reader::follow(kPath);
  EXPECT_FALSE(follower.replaced());

  Recorder second(kPath, flight::kLeastRing, 0);

  EXPECT_TRUE(follower.replaced());
  ASSERT_EQ(0, ::stat(kPath.c_str(), &status));
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(status.st_blocks * 512, status.st_size);  // a full file system cannot harm the writer
  Entry entry;
  Reader old = Reader::load(kPath + ".1");
  EXPECT_EQ(Reader::Next::kEntry, old.next(&entry));
  EXPECT_EQ(Reader::Next::kEntry, old.next(&entry));
  EXPECT_EQ(check_message(entry, 0), 1u);
}

TEST(FlightRecorder, LeavesNothingBehindWhereItCannotRecord) {
  const auto refusal = [](const std::string &path, uint64_t size) {
    try {
      Recorder(path, size, 0);
    } catch (const std::system_error &error) {
      EXPECT_FALSE(std::filesystem::exists(path + ".new"));
      return error.code().value();
    }
    return 0;
  };
  for (const uint64_t size :
       {uint64_t{0}, flight::kLeastRing / 2, flight::kLeastRing + 8, flight::kMostRing * 2}) {
    EXPECT_EQ(EINVAL, refusal(kPath, size)) << size;
  }
  EXPECT_EQ(ENOENT, refusal("/no/directory/flight", flight::kLeastRing));
  // What it can neither move aside nor replace.
  std::filesystem::create_directories(kPath + "/kept");
  std::ofstream(kPath + ".1") << "a file";
  EXPECT_EQ(EISDIR, refusal(kPath, flight::kLeastRing));
  EXPECT_TRUE(std::filesystem::exists(kPath + "/kept"));

  ASSERT_EQ(0, ::mount("small", "/mnt", "tmpfs", 0, "size=16k"));
  EXPECT_EQ(ENOSPC, refusal("/mnt/flight", flight::kLeastRing));
}

TEST(FlightRecorder, AFollowerKnowsWhatItMissed) {
  const uint32_t messages = 300000 * test::soak_factor() / test::kSlowness;
  Shared *shared = share();
  Recorder recorder(kPath, flight::kLeastRing, 200);
  Reader reader = Reader::follow(kPath);
  const pid_t writer = ::fork();
  if (writer == 0) {
    for (uint32_t value = 1; value <= messages; ++value) record_message(&recorder, value);
    shared->count = recorder.count();
    shared->done = true;
    ::_exit(0);
  }

  Entry entry;
  uint32_t last = 0;
  for (bool done = false;;) {
    const Reader::Next next = reader.next(&entry);
    ASSERT_NE(Reader::Next::kDamaged, next);
    if (next == Reader::Next::kNothing) {
      if (done) break;
      done = shared->done;
    } else if (entry.kind() == Kind::kAccepted) {
      const uint32_t value = check_message(entry, 200);
      ASSERT_GT(value, last);
      last = value;
      if (value % 5000 == 0) ::usleep(1000);  // and is overtaken
    }
  }
  ::waitpid(writer, nullptr, 0);

  EXPECT_EQ(last, messages);
  EXPECT_GT(reader.missed(), 0u);
  EXPECT_EQ(reader.before_first() + reader.seen() + reader.missed(), shared->count);
}

TEST(FlightRecorder, IsWholeAfterItsWriterWasKilled) {
  Shared *shared = share();
  std::minstd_rand random(test::seed());
  for (uint32_t round = 0; round < 50 * test::soak_factor(); ++round) {
    const pid_t writer = ::fork();
    if (writer == 0) {
      Recorder recorder(kPath, flight::kLeastRing, 200);
      for (uint32_t value = 1;; ++value) {
        record_message(&recorder, value);
        shared->count.store(recorder.count(), std::memory_order_relaxed);
      }
    }
    shared->count = 0;
    while (shared->count < 1000) ::usleep(100);
    ::usleep(static_cast<useconds_t>(random() % 3000));
    ::kill(writer, SIGKILL);
    ::waitpid(writer, nullptr, 0);

    Reader reader = Reader::load(kPath);
    Entry entry;
    uint64_t last = 0;
    Reader::Next next;
    while ((next = reader.next(&entry)) == Reader::Next::kEntry) {
      last = entry.record.number;
      if (entry.kind() == Kind::kAccepted) check_message(entry, 200);
    }
    ASSERT_EQ(Reader::Next::kNothing, next);
    ASSERT_GE(last, shared->count);
    // One record was being written, perhaps with a clock record before it.
    ASSERT_LE(last, shared->count + 2);
  }
}

TEST(FlightReader, RefusesWhatIsNoFileOfTheRecorder) {
  { Recorder recorder(kPath, flight::kLeastRing, 0); }
  const std::vector<char> good = file_bytes(kPath);
  const auto refused = [](const std::vector<char> &bytes) {
    return refusal([&bytes] { Reader reader(bytes); });
  };
  const auto changed = [&](size_t offset, uint64_t value, size_t size) {
    std::vector<char> bytes = good;
    std::memcpy(bytes.data() + offset, &value, size);
    return refused(bytes);
  };

  EXPECT_EQ(refused(good), "");
  EXPECT_THAT(refused({}), HasSubstr("too short"));
  EXPECT_THAT(refused({good.begin(), good.begin() + 5000}), HasSubstr("its size"));
  EXPECT_THAT(changed(0, 0, 8), HasSubstr("no file of the flight recorder"));
  EXPECT_THAT(changed(8, 2, 4), HasSubstr("another version"));
  for (const uint64_t size : {flight::kLeastRing / 2, flight::kLeastRing + 8,
                              flight::kLeastRing * 2, flight::kMostRing * 2}) {
    EXPECT_THAT(changed(16, size, 8), HasSubstr("its size")) << size;
  }
  EXPECT_THAT(changed(12, 8192, 4), HasSubstr("its size"));
}

TEST(FlightReader, SaysWhyAFileCannotBeRead) {
  const auto expect_both = [](const std::string &path, const std::string &why) {
    EXPECT_EQ(path + ": " + why, refusal([&path] { Reader::follow(path); }));
    EXPECT_EQ(path + ": " + why, refusal([&path] { Reader::load(path); }));
  };
  const auto of_size = [](uint64_t ring) {
    std::filesystem::resize_file(kPath, flight::kRingOffset + ring);
  };
  const std::string foreign = "this is no file of the flight recorder";

  expect_both("/nonexistent", "there is no such file; is msgsvr running, with --flight?");
  expect_both("/dev/null/file", "Not a directory");
  expect_both("/dev/zero", "this is no regular file");
  std::ofstream(kPath) << "short";
  expect_both(kPath, foreign + " (its size cannot be)");
  of_size(2 * flight::kMostRing);
  expect_both(kPath, foreign + " (its size cannot be)");
  of_size(flight::kLeastRing);
  EXPECT_EQ(kPath + ": " + foreign, refusal([] { Reader::follow(kPath); }));
  EXPECT_EQ(kPath + ": flight file: " + foreign, refusal([] { Reader::load(kPath); }));
  ASSERT_EQ(0, ::chmod(kPath.c_str(), 0600));
  if (::geteuid() == 0 && ::seteuid(65534) == 0) {
    expect_both(kPath, "only the server's own user may read it");
    ASSERT_EQ(0, ::seteuid(0));
  }
}

TEST(FlightReader, KnowsThatItsFileIsGoneAndWhatItSkipped) {
  Recorder recorder(kPath, flight::kLeastRing, 300);
  Reader reader = Reader::follow(kPath);
  for (uint32_t value = 1; value <= 5; ++value) record_message(&recorder, value);
  reader.skip_to_end();
  record_message(&recorder, 6);

  Entry entry;
  ASSERT_EQ(Reader::Next::kEntry, reader.next(&entry));
  EXPECT_EQ(6u, check_message(entry, 300));
  EXPECT_EQ(1u, reader.seen());
  reader.skip_to_end();
  record_message(&recorder, 7);
  reader.skip_to_end();
  record_message(&recorder, 8);
  ASSERT_EQ(Reader::Next::kEntry, reader.next(&entry));
  EXPECT_EQ(8u, check_message(entry, 300));
  EXPECT_EQ(0u, reader.missed()) << "what was skipped is not missed";

  EXPECT_FALSE(reader.replaced());
  const Reader copy(file_bytes(kPath));
  std::filesystem::remove(kPath);
  EXPECT_TRUE(reader.replaced());
  EXPECT_FALSE(copy.replaced());
}

TEST(FlightReader, ReadsAgainAsIfForTheFirstTime) {
  Recorder recorder(kPath, flight::kLeastRing, 300);
  for (uint32_t i = 0; i < 10; ++i) record_message(&recorder, i);
  for (const bool follows : {true, false}) {
    Reader reader = follows ? Reader::follow(kPath) : Reader::load(kPath);
    const auto read = [&reader] {
      std::vector<std::pair<uint64_t, uint64_t>> seen;
      Entry entry;
      while (reader.next(&entry) == Reader::Next::kEntry) {
        seen.emplace_back(entry.record.number, reader.wall_ns(entry.record.time_ns));
      }
      return seen;
    };
    const auto first = read();
    EXPECT_LE(10u, first.size());
    EXPECT_TRUE(read().empty());
    reader.rewind();
    EXPECT_EQ(first, read());
    EXPECT_EQ(first.size(), reader.seen());
    EXPECT_EQ(0u, reader.missed());
  }
}

TEST(FlightReader, NamesEachThingThatCannotBe) {
  {
    Recorder recorder(kPath, flight::kLeastRing, 0);  // begins with a record of the clock
    for (uint32_t value = 1; value < 100; ++value) record_message(&recorder, value);
  }
  const std::vector<char> good = file_bytes(kPath);
  uint64_t head = Reader(good).head().head;
  const auto of_record = [](uint64_t position, size_t member) {
    return flight::kRingOffset + position + member;
  };
  const struct {
    size_t at;
    uint64_t value;
    size_t size;
  } damages[] = {
      {offsetof(flight::FileHead, head), 2 * flight::kLeastRing, 8},
      {offsetof(flight::FileHead, head), head + 4, 8},
      {offsetof(flight::FileHead, tail), head + 8, 8},
      {offsetof(flight::FileHead, tail), 4, 8},
      {of_record(0, offsetof(flight::Record, size)), sizeof(flight::Record) + 4, 4},
      {of_record(0, offsetof(flight::Record, size)), 8, 4},
      {of_record(0, offsetof(flight::Record, size)), head + 8, 4},
      {of_record(0, offsetof(flight::Record, size)), flight::kMostRecord + 8, 4},
      {of_record(0, offsetof(flight::Record, kind)), flight::kLastKind + 1u, 1},
      {of_record(0, offsetof(flight::Record, kind)), 0, 1},  // a filler in the middle
      {of_record(0, offsetof(flight::Record, loss)), flight::kLastLoss + 1u, 1},
      {of_record(0, offsetof(flight::Record, kept)), 1, 2},
      {of_record(0, offsetof(flight::Record, number)), 0, 8},
      {of_record(sizeof(flight::Record), offsetof(flight::Record, number)), 1, 8},
  };
  const auto end_of = [](auto &&reader) {
    Entry entry;
    Reader::Next next;
    while ((next = reader.next(&entry)) == Reader::Next::kEntry) {
    }
    return next;
  };
  for (const auto &damage : damages) {
    std::vector<char> damaged = good;
    std::memcpy(damaged.data() + damage.at, &damage.value, damage.size);
    std::ofstream(kPath, std::ios::binary).write(damaged.data(), std::ssize(damaged));
    EXPECT_EQ(Reader::Next::kDamaged, end_of(Reader::load(kPath))) << damage.at;
    EXPECT_EQ(Reader::Next::kDamaged, end_of(Reader::follow(kPath))) << damage.at;
  }

  // Nor can the newest record become older than what was read.
  std::ofstream(kPath, std::ios::binary).write(good.data(), std::ssize(good));
  Reader follower = Reader::follow(kPath);
  EXPECT_EQ(Reader::Next::kNothing, end_of(follower));
  head = sizeof(flight::Record);
  std::fstream(kPath, std::ios::in | std::ios::out | std::ios::binary)
      .seekp(offsetof(flight::FileHead, head))
      .write(reinterpret_cast<const char *>(&head), sizeof head);
  EXPECT_EQ(Reader::Next::kDamaged, end_of(follower));
}

// The ring turns, a reader follows or comes late, and bytes of the file are changed.
TEST(Flight, IsReadAsItWasWrittenWhateverTheFuzzTargetDoes) {
  test::run_fuzz_target(500, 250);
}

}  // namespace
