// The flight recorder's commands with a real message server and real applications.

#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "msgapi/messages.h"
#include "tools/msgctl_support.h"

namespace {

using nlohmann::json;
using std::chrono::duration;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;
using test::Application;
using test::Frame;
using test::kOwnType;
using test::lines_of;
using test::Output;
using test::Process;
using test::RawClient;
using test::run;
using test::shell;
using testing::AllOf;
using testing::HasSubstr;

using MsgctlLive = test::Msgctl;

TEST_F(MsgctlLive, LatenciesAreThoseThatAClientMeasures) {
  constexpr milliseconds kWork(100);
  constexpr uint32_t kExchanges = 9;
  const Application worker("worker", [&](RawClient &self, const Frame &request) {
    if (request.type != kOwnType) return;
    std::this_thread::sleep_for(kWork);
    self.answer(request);
  });
  RawClient client("client");
  std::vector<double> measured;
  for (uint32_t i = 1; i <= kExchanges; ++i) {
    const auto start = steady_clock::now();
    client.ask({.type = kOwnType, .to = "worker", .sequence = i});
    measured.push_back(duration<double, std::nano>(steady_clock::now() - start).count());
  }
  std::ranges::sort(measured);
  const double median = measured[measured.size() / 2];

  const json row = json::parse(run({"latency", "--json", "type=0x1234"}).text);
  const auto ns = [&row](const char *time, const char *what) {
    return row[time][what].get<double>();
  };
  EXPECT_EQ(row["total"]["count"], kExchanges);
  EXPECT_NEAR(ns("total", "p50_ns"), median, 0.1 * median);
  EXPECT_GE(ns("handler", "p50_ns"), static_cast<double>(nanoseconds(kWork).count()));
  // The server records a delivery after it has happened, and other processes may run in between.
  EXPECT_LE(ns("total", "max_ns"), 2 * measured.back());
}

TEST_F(MsgctlLive, PostmortemTellsOfAServerThatWasKilled) {
  constexpr uint32_t kMessages = 400;
  RawClient slow("slow");
  RawClient asker("asker");
  // More than the socket takes.
  for (uint32_t i = 1; i <= kMessages; ++i) {
    asker.send({.type = kOwnType, .to = "slow", .body = std::string(2000, 'x'), .sequence = i});
  }
  // By the catalogue this type is answered, but "slow" never answers.
  asker.send({.type = ORP_MSG_COUNT_PROCESSES, .to = "slow", .sequence = 1000});
  asker.send({.type = ORP_MSG_COUNT_PROCESSES, .to = "server", .body = "x", .sequence = 1001});
  EXPECT_TRUE(test::eventually([] {
    return !run({"monitor", "--history-only", "from=asker", "to=server", "type=count-processes"})
                .text.empty();
  }));
  const pid_t pid = server_->pid();
  EXPECT_EQ(server_->stop(SIGKILL), 128 + SIGKILL);

  const auto check = [&] {
    const std::vector<json> lines = lines_of(run({"postmortem", "--json", "from=asker"}).text);
    const auto with = [&lines](const char *member) {
      std::vector<json> found;
      std::ranges::copy_if(lines, std::back_inserter(found),
                           [member](const json &each) { return each.contains(member); });
      return found;
    };
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0]["process"], pid);
    EXPECT_EQ(lines[0]["running"], false);
    EXPECT_EQ(with("connected").size(), 2u);
    const std::vector<json> queued = with("queued");
    ASSERT_GT(queued.size(), 10u);
    ASSERT_LT(queued.size(), kMessages + 2);
    for (const json &each : queued) EXPECT_EQ(each["to"], "slow");
    EXPECT_EQ(queued.back()["type_name"], "count-processes (0x705)");
    const std::vector<json> waits = with("certain");
    const auto unanswered =
        std::ranges::count_if(waits, [](const json &each) { return each["sequence"] == 1000; });
    EXPECT_EQ(unanswered, 1) << "nobody answered it";
    EXPECT_EQ(lines.back()["sequence"], 1001) << "the last thing that was sent";
  };
  check();
  // The next server has put its own file in that place.
  start();
  check();
}

// In a root that is not a sandbox's, with the same bus.
TEST_F(MsgctlLive, StandInsRefuseABusThatIsNoSandboxs) {
  server_->stop(SIGTERM);
  start({"--flight-body", "100"});
  const Application station("station", [](RawClient &self, const Frame &request) {
    if (request.type == kOwnType) self.answer(request, 5);
  });
  ASSERT_EQ(run({"call", "station", "0x1234"}).text, "5\n");
  ASSERT_EQ(run({"capture", "-w", "/var/run/c.pcapng", "--no-mask"}).status, 0);

  const Output prepared = shell(R"(set -e
root=/var/elsewhere
mkdir -p $root/var/run
mount --rbind /var/run $root/var/run
for entry in /*; do
  if [[ -L $entry ]]; then
    cp -P "$entry" "$root$entry"
  elif [[ -d $entry && $entry != /var ]]; then
    mkdir "$root$entry"
    mount --rbind "$entry" "$root$entry"
  fi
done)");
  ASSERT_EQ(prepared.status, 0) << prepared.text;
  const auto elsewhere = [](const std::string &words) {
    return shell("chroot /var/elsewhere msgctl " + words + " 2>&1");
  };
  for (const char *words : {"replay /var/run/c.pcapng --to station",
                            "mock /var/run/c.pcapng --as other --of station"}) {
    const Output refusal = elsewhere(words);
    EXPECT_EQ(refusal.status, 7) << refusal.text;
    EXPECT_THAT(refusal.text, HasSubstr("--live"));
  }

  Output output = elsewhere("replay /var/run/c.pcapng --to station --live --json");
  EXPECT_EQ(output.status, 0) << output.text;
  EXPECT_EQ(json::parse(output.text)["answered_alike"], 1);
  std::thread mock([&] {
    output = elsewhere("mock /var/run/c.pcapng --as other --of station --live -n 1 --json");
  });
  EXPECT_EQ(run({"wait", "other"}).status, 0);
  EXPECT_EQ(run({"call", "other", "0x1234"}).text, "5\n");
  mock.join();
  EXPECT_EQ(output.status, 0) << output.text;
}

}  // namespace
