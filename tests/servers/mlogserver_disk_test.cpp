// Disks that are full or damaged, and a log server that is killed.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

#include "common/unique_fd.h"
#include "msgapi/log.h"
#include "msgapi/ringlog.h"
#include "servers/log_server.h"
#include "support/file.h"
#include "support/process.h"
#include "support/soak.h"

namespace {

using test::log_of;
using test::LogServer;
using test::Sender;
using test::SmallDisk;
using test::with_config;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

TEST(LogServerDisk, AFullDiskIsReportedOnceAndLeavesNoTornLine) {
  SmallDisk disk;
  LogServer server({"--directory", "/mnt/disk"});
  MlogPrint("wan", 8, "before");
  ASSERT_EQ(0, MlogFlushLog());
  disk.fill();

  for (int line = 0; line < 300; ++line) MlogPrint("wan", 8, "%0200d", line);
  EXPECT_EQ(-1, MlogFlushLog());
  ASSERT_TRUE(server.wait_for("No space left on device: lines are lost"));
  std::string log = log_of("wan", "/mnt/disk");
  EXPECT_THAT(log, EndsWith("\n"));

  disk.make_room();
  do {
    MlogPrint("wan", 8, "after");
  } while (MlogFlushLog() != 0);
  log = log_of("wan", "/mnt/disk");
  EXPECT_THAT(log, HasSubstr(" lines before this one are lost\n["));
  EXPECT_THAT(log, MatchesRegex("(\\[[0-9]{11}\\]\\[wan\\]\\[[A-Z]{4}\\]:"
                                "(before|[0-9*]{200}|mlogserver: [0-9]+ lines [a-z ]+|after)\n)+"));

  EXPECT_EQ(0, server.stop(SIGTERM));
  EXPECT_EQ(server.output().find("are lost from now"), server.output().rfind("are lost from now"));
}

TEST(LogServerDisk, ALineThatDoesNotFitAFullDiskGivesBackWhatItOverwrote) {
  // A ring in its second turn, on a disk where the next line crosses into a block that is a hole.
  SmallDisk disk;
  const std::string old = "[00000000001][wan][INFO]:" + std::string(74, 'o') + "\n";
  char header[MLOG_FILE_HEADER_SIZE + 1];
  std::snprintf(header, sizeof header,
                "[overturn=001][offset=0000004063][uploadoffset=001^0000001023]\n");
  std::string ring = header;
  for (int i = 0; i < 40; ++i) ring += old;
  {
    std::ofstream file("/mnt/disk/wan.log");
    file << ring;
    file.seekp(3 * 4096);
    file << old;
  }
  disk.fill();
  const std::string before = test::contents("/mnt/disk/wan.log");
  LogServer server({"--directory", "/mnt/disk"});

  MlogPrint("wan", 8, "%s", std::string(200, 'n').c_str());
  EXPECT_EQ(-1, MlogFlushLog());

  EXPECT_EQ(before, test::contents("/mnt/disk/wan.log"));
}

TEST(LogServerDisk, AFileThatCannotBeUsedHoldsUpNoOther) {
  std::filesystem::create_directories("/var/mlogfile/wan.log");
  LogServer server;

  MlogPrint("wan", 8, "lost");
  MlogPrint("lan", 8, "kept");
  MlogFlushLog();

  EXPECT_THAT(log_of("lan"), EndsWith(":kept\n"));
  char state[256] = "";
  EXPECT_EQ(0, MlogGetStatInfo("mlogServer.state", state, sizeof state));
  EXPECT_THAT(state, MatchesRegex("/var/mlogfile/wan.log: .*: its lines are lost"));

  // It is tried again.
  std::filesystem::remove("/var/mlogfile/wan.log");
  do {
    MlogPrint("wan", 8, "again");
  } while (MlogFlushLog() != 0);
  EXPECT_TRUE(server.wait_for("/var/mlogfile/wan.log: lines are written again"));
  EXPECT_THAT(log_of("wan"), MatchesRegex(".*: [0-9]+ lines before this one are lost\n.*:again\n"));
  EXPECT_EQ(0, server.stop(SIGTERM));
  EXPECT_THAT(server.output(),
              MatchesRegex("(.|\n)*module wan: kept 1 below level 0 dropped 0 lost [1-9](.|\n)*"));
}

TEST(LogServerKill, LosesNoLineThatItHasTaken) {
  // All lines of a long run, each with its sender, which the next server takes from the inbox, too.
  const auto arguments = with_config("max_size = 2097152\nsender_pids = 1\n");
  const std::string head = "[1][wan][INFO][" + std::to_string(::getpid()) + "]:";
  std::mt19937 random(test::seed());
  int number = 0;
  const uint32_t rounds = 20 * test::soak_factor();
  for (uint32_t round = 0; round < rounds; ++round) {
    LogServer server(arguments);
    Sender sender;
    for (auto count = random() % 40; count > 0; --count) {
      sender.send(MLOG_TYPE_LOG, "[1][wan][INFO]:" + std::to_string(number++) + "\n");
    }
    sender.wait_until_taken();
    // The server may be anywhere between taking the last lines and writing them.
    ASSERT_EQ(128 + SIGKILL, server.stop(SIGKILL));
  }
  LogServer server(arguments);
  ASSERT_EQ(0, server.stop(SIGTERM));

  std::istringstream lines(log_of("wan"));
  int expected = 0;
  uint32_t twice = 0;
  for (std::string line; std::getline(lines, line); ++expected) {
    if (line == head + std::to_string(expected)) continue;
    // The line that was being written may come again.
    EXPECT_EQ(head + std::to_string(--expected), line);
    ++twice;
  }
  EXPECT_EQ(number, expected);
  EXPECT_LE(twice, rounds);
}

constexpr const char *kInbox = "/var/mlog/mlogServer.inbox";

// Everybody who logs may make files in the inbox's directory.
TEST(LogServerKill, TakesNoInboxThatSomebodyElseMayHaveOpen) {
  std::filesystem::create_directory("/var/mlog");
  const auto opened = [] { return servers::UniqueFd(::open(kInbox, O_RDWR | O_CREAT, 0600)); };
  const auto is_not_taken = [](const servers::UniqueFd &inbox, const char *what) {
    LogServer server;
    EXPECT_EQ(0, ::ftruncate(inbox.get(), 0)) << what;  // the end of who has mapped it
    MlogPrint("wan", 8, "%s", what);
    EXPECT_EQ(0, MlogFlushLog()) << what;
    EXPECT_EQ(0, server.stop(SIGTERM)) << what;
  };

  const servers::UniqueFd open_to_all = opened();
  ASSERT_EQ(0, ::fchmod(open_to_all.get(), 0666));
  is_not_taken(open_to_all, "open to all");
  const servers::UniqueFd with_two_names = opened();
  ASSERT_EQ(0, ::link(kInbox, "/var/mlog/other_name"));
  is_not_taken(with_two_names, "with two names");
  const servers::UniqueFd of_another = opened();
  // An ordinary user's sandbox has no other users.
  if (::fchown(of_another.get(), 65534, 65534) == 0) is_not_taken(of_another, "of another user");
}

TEST(LogServerKill, LeavesNothingThatStopsTheNextServer) {
  LogServer first;
  first.stop(SIGKILL);
  // The inbox of another version, and other files that may be in its place.
  for (const std::string &junk : {std::string(200000, 'x'), std::string("short"), std::string()}) {
    std::ofstream(kInbox, std::ios::trunc) << junk;
    ASSERT_EQ(0, ::chmod(kInbox, 0600));
    LogServer next;
    MlogPrint("wan", 8, "line");
    EXPECT_EQ(0, MlogFlushLog());
    EXPECT_EQ(0, next.stop(SIGTERM));
  }
  const auto goes_without_an_inbox = [] {
    test::Process server("mlogserver");
    EXPECT_TRUE(server.wait_for("mlogServer.inbox cannot be used"));
    EXPECT_TRUE(server.wait_for("ready"));
    MlogPrint("wan", 8, "line");
    EXPECT_EQ(0, MlogFlushLog());
    EXPECT_EQ(0, server.stop(SIGTERM));
  };
  ASSERT_EQ(0, ::symlink("/var/target", kInbox));
  goes_without_an_inbox();
  EXPECT_NE(0, ::access("/var/target", F_OK));
  ASSERT_EQ(0, ::mkfifo(kInbox, 0600));
  goes_without_an_inbox();
  ASSERT_EQ(0, ::mount("tiny", "/var/mlog", "tmpfs", 0, "size=16k"));
  goes_without_an_inbox();
}

}  // namespace
