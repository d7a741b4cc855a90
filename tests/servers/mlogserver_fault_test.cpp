// The log server with failing allocations: each costs a line or a request, but never the server.

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <new>
#include <string>

#include "mlogserver/server.h"
#include "msgapi/log.h"
#include "servers/log_server.h"
#include "support/resource_limit.h"

namespace {

// Allocations until one fails; 0: none does.
thread_local unsigned t_allocations_left = 0;
// The failing one and all after it fail.
thread_local bool t_fails = false;

bool fails() {
  if (t_allocations_left > 0 && --t_allocations_left == 0) t_fails = true;
  return t_fails;
}

// While it lives, all allocations of this thread fail from the `nth` on.
class NoMemory {
 public:
  explicit NoMemory(unsigned nth) { t_allocations_left = nth; }
  NoMemory(const NoMemory &) = delete;
  NoMemory &operator=(const NoMemory &) = delete;
  ~NoMemory() {
    t_allocations_left = 0;
    t_fails = false;
  }
  bool happened() const { return t_fails; }
};

}  // namespace

void *operator new(size_t size) {
  void *memory = fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void *memory) noexcept {
  std::free(memory);
}

void operator delete(void *memory, size_t) noexcept {
  std::free(memory);
}

namespace {

using test::Sender;

std::string statistics(const std::string &module, const std::string &text) {
  std::string record(516, '\0');
  return record.replace(0, module.size(), module).replace(256, text.size(), text);
}

TEST(LogServerMemory, GivesUpOneRequestAndGoesOn) {
  mlogserver::RingStore store(mlogserver::Config{});
  servers::EventLoop loop;
  mlogserver::Server server(&loop, &store);
  Sender client;
  const std::string name(90, 'm');  // too long for a string without memory of its own

  bool happened = true;
  unsigned nth = 0;
  for (nth = 1; happened; ++nth) {
    const std::string module = name + std::to_string(nth);
    client.send(MLOG_TYPE_LOG, "[1][" + module + "][INFO]:text\n");
    client.send(MLOG_TYPE_SET_STAT, statistics(module, std::string(200, 's')));
    client.send(MLOG_TYPE_GET_STAT, statistics(module, ""));
    {
      const NoMemory guard(nth);
      server.drain();
      happened = guard.happened();
    }
    // Whatever was given up, the server knows whether a line was lost, and serves the next request.
    const bool written = test::log_of(module).ends_with(":text\n");
    client.answer();  // to the request for statistics, if it was served
    client.send(MLOG_TYPE_FLUSH, "");
    server.drain();
    EXPECT_EQ(written ? 0 : UINT32_MAX, client.answer()) << nth;
  }
  EXPECT_GT(nth, 5u) << "some allocations did fail";
  EXPECT_GT(server.counters().given_up + store.given_up(), 3u);
}

TEST(LogServerMemory, AConfigurationThatThereIsNoMemoryForChangesNothing) {
  mlogserver::RingStore store(mlogserver::Config{});
  std::string line = "[1][wan][INFO]:text\n";
  store.append(&line, 1);

  for (unsigned nth = 1;; ++nth) {
    mlogserver::Config config;
    config.directory = "/var/a-directory-whose-name-needs-memory";
    const NoMemory guard(nth);
    try {
      store.reconfigure(std::move(config));
      break;
    } catch (const std::bad_alloc &) {
      EXPECT_EQ("/var/mlogfile", store.directory());
    }
  }
  EXPECT_EQ("/var/a-directory-whose-name-needs-memory", store.directory());
  EXPECT_TRUE(store.sync());
}

TEST(LogServerLimits, DroppedLinesAreToldOfAsSoonAsThereIsRoom) {
  test::SmallDisk disk;
  mlogserver::Config config;
  config.directory = "/mnt/disk";
  config.defaults.rate_limit = 1;
  mlogserver::RingStore store(config);
  const auto print = [&store](const std::string &text, const std::string &module = "wan") {
    std::string line = "[1][" + module + "][INFO]:" + text + "\n";
    store.append(&line, 1);
  };

  print(std::string(3990, 'k'));  // leaves no room in the file's first block
  for (int i = 0; i < 2; ++i) print("dropped");
  const auto first = store.next_notice();
  EXPECT_TRUE(first);
  for (const char *module : {"lan", "lan", "tv"}) print("later", module);
  EXPECT_EQ(first, store.next_notice()) << "the interval that ends first";
  disk.fill();
  store.tell_dropped(false);
  EXPECT_EQ("", store.state()) << "the interval is not over, so nothing is tried";
  store.tell_dropped(true);
  EXPECT_THAT(store.state(), testing::HasSubstr("/mnt/disk: No space left on device"));

  disk.make_room();
  store.reconfigure(config);
  print("next");
  EXPECT_THAT(test::log_of("wan", "/mnt/disk"),
              testing::MatchesRegex(".*:k+\n.*: 2 lines dropped from wan\n.*:next\n"));
  EXPECT_FALSE(store.next_notice());
}

TEST(LogServerDescriptors, ALineWithoutOneIsLostAndCounted) {
  mlogserver::RingStore store(mlogserver::Config{});
  servers::EventLoop loop;
  mlogserver::Server server(&loop, &store);
  Sender client;
  // Once with descriptors: a sanitizer needs one when it looks at a type for the first time.
  std::filesystem::create_directories("/var/mlogfile/lan.log");
  client.send(MLOG_TYPE_LOG, "[1][lan][INFO]:lost\n");
  server.drain();
  EXPECT_THROW(mlogserver::Server second(&loop, &store), std::runtime_error);

  {
    const test::DescriptorLimit none(0);
    client.send(MLOG_TYPE_LOG, "[1][wan][INFO]:lost\n");
    client.send(MLOG_TYPE_FLUSH, "");
    server.drain();
    EXPECT_EQ(UINT32_MAX, client.answer());
    // Without a descriptor to ask with, a second server does not replace the first one.
    EXPECT_THROW(mlogserver::Server second(&loop, &store), std::runtime_error);
  }

  EXPECT_EQ(0, ::access("/var/mlog/mlogServer", F_OK));
  EXPECT_EQ(1u, store.counters().at("wan").lost);
}

}  // namespace
