// "mlog -f" beside a log server that goes on writing.

#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <sstream>

#include "msgapi/log.h"
#include "servers/log_server.h"
#include "tools/mlog_support.h"

namespace {

using namespace test::mlog;

TEST(MlogFollow, LosesAndDoublesNoLineWhateverHappensToTheFile) {
  std::optional<test::LogServer> server(test::with_config("max_size = 8192\n"));
  test::Process follow("mlog", {"-f", "-o", "raw"});
  int number = 0;
  const auto log = [&](const char *module, int count) {
    for (int i = 0; i < count; ++i) MlogPrint(module, 8, "line %d %060d", number++, 0);
    EXPECT_EQ(0, MlogFlushLog());
    EXPECT_TRUE(follow.wait_for("line " + std::to_string(number - 1) + " ")) << follow.output();
  };

  log("wan", 1);
  // Through several turns of the ring.
  for (int i = 0; i < 12; ++i) log("wan", 30);
  // The file is removed while lines are written.
  std::filesystem::remove("/var/mlogfile/wan.log");
  log("wan", 5);
  std::filesystem::remove("/var/mlogfile/wan.log");
  log("lan", 5);
  log("wan", 5);
  // The server ends, is killed, and starts again.
  for (const int signal : {SIGTERM, SIGKILL}) {
    server->stop(signal);
    server.emplace(test::with_config("max_size = 8192\n"));
    log("wan", 20);
    log("lan", 20);
  }
  // A file that is moved away takes its last lines with it; the next server begins another.
  server->stop(SIGTERM);
  std::filesystem::rename("/var/mlogfile/wan.log", "/var/wan.old");
  server.emplace(test::with_config("max_size = 8192\n"));
  log("wan", 5);

  std::istringstream lines(follow.output());
  int expected = 0;
  for (std::string text; std::getline(lines, text); ++expected) {
    EXPECT_NE(std::string::npos, text.find("line " + std::to_string(expected) + " ")) << text;
  }
  EXPECT_EQ(number, expected);
}

TEST(MlogFollow, MergesWhatComesAndWaitsForModulesThatAreNotThereYet) {
  test::Process follow("mlog", {"-f", "-n", "2", "-o", "raw", "-m", "w*", "-m", "usb"});
  ::usleep(200000);
  write_ring("wan", line(10, "w1") + line(30, "w2"));
  ASSERT_TRUE(follow.wait_for("w2\n"));
  write_ring("usb", line(40, "u1", "INFO", "usb"));
  write_ring("lan", line(41, "not wanted", "INFO", "lan"));
  ASSERT_TRUE(follow.wait_for("u1\n"));
  write_ring("wan", line(50, "w3"));
  ASSERT_TRUE(follow.wait_for("w3\n"));

  test::Process second("mlog", {"-f", "-n", "2", "-o", "raw", "-m", "[uw]*"});
  ASSERT_TRUE(second.wait_for("w3\n"));
  EXPECT_EQ(line(40, "u1", "INFO", "usb") + line(50, "w3"), second.output());
  EXPECT_EQ(line(10, "w1") + line(30, "w2") + line(40, "u1", "INFO", "usb") + line(50, "w3"),
            follow.output());
}

}  // namespace
