// The demo's daemons survive kill -9 of every server, again and again.

#include <gmock/gmock.h>
#include <signal.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "msgapi.h"
#include "msgapi/kit.h"
#include "support/message_peer.h"
#include "support/process.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Frame;
using test::Process;
using test::RawClient;

constexpr uint32_t kReadTemperature = 0x1001;
constexpr uint32_t kTemperature = 2150;
constexpr int kRounds = 50;
constexpr milliseconds kBudget{5000 * test::kSlowness};

std::unique_ptr<Process> start(const std::string &name) {
  auto server = std::make_unique<Process>(name);
  EXPECT_TRUE(server->wait_for("ready")) << name << ": " << server->output();
  return server;
}

// Asks until there is an answer.
bool answers(const Frame &request, const std::function<bool(const Frame &)> &is_right) {
  const auto end = steady_clock::now() + kBudget;
  RawClient asker("asker");
  while (steady_clock::now() < end) {
    asker.send(request);
    while (const auto frame = asker.receive(1000)) {
      if (frame->type == request.type && is_right(*frame)) return true;
      if (frame->type == ORP_MSG_UNDELIVERABLE) break;  // not back yet
    }
    std::this_thread::sleep_for(milliseconds(10));
  }
  return false;
}

bool station_answers() {
  return answers({.type = kReadTemperature, .to = "cms", .sequence = 5},
                 [](const Frame &frame) { return frame.data == kTemperature; });
}

// Whether the path is registered again.
bool status_answers() {
  std::string fields(sizeof(ORP_MSG_RESTFUL_REQ_ST) + 1, '\0');
  fields.replace(8, 4, "/dev");
  fields.replace(8 + ORP_MSG_RESTFUL_FIELD_SIZE, 4, "info");
  return answers(
      {.type = ORP_MSG_RESTFUL_REQUEST, .body = fields, .sequence = 6},
      [](const Frame &frame) { return frame.body.find("demo gateway") != std::string::npos; });
}

TEST(Restarts, OfEveryServerAreSurvivedByTheDemo) {
  auto log_server = start("mlogserver");
  auto notify_server = start("notifyserver");
  auto message_server = start("msgsvr");
  Process station("demo_station"), status("demo_status"), wan("demo_wan");

  for (int round = 0; round < kRounds; ++round) {
    ASSERT_TRUE(station_answers()) << "round " << round << station.output();
    ASSERT_TRUE(status_answers()) << "round " << round << status.output();
    message_server->stop(SIGKILL);
    if (round % 5 == 1) notify_server->stop(SIGKILL);
    if (round % 7 == 2) log_server->stop(SIGKILL);
    if (round % 7 == 2) log_server = start("mlogserver");
    message_server = start("msgsvr");
    if (round % 5 == 1) notify_server = start("notifyserver");
  }
  ASSERT_TRUE(station_answers());
  ASSERT_TRUE(status_answers());

  EXPECT_EQ(0, wan.stop(SIGTERM));
  EXPECT_EQ(0, status.stop(SIGTERM));
  EXPECT_EQ(0, station.stop(SIGTERM));
}

bool g_notified;
// The notify server tells "web" of every reading.
TEST(Restarts, OfTheNotifyServerAloneAreSurvived) {
  auto notify_server = start("notifyserver");
  auto message_server = start("msgsvr");
  Process station("demo_station");
  EXPECT_EQ(ORP_OK, msgkit_on_notification(
                        5, [](void *, void *) { g_notified = true; }, nullptr));
  EXPECT_EQ(ORP_OK, msgkit_stay_connected("web", nullptr));
  EXPECT_EQ(1u, msgkit_is_connected(MSGKIT_NOTIFY_SERVER));

  for (int round = 0; round < 5; ++round) {
    g_notified = false;
    const auto end = steady_clock::now() + kBudget;
    while (!g_notified && steady_clock::now() < end) {
      ORP_MSG_SendSimpleMsg("cms", kReadTemperature, 0);
      OrpUvLoopRun(nullptr, 50);
    }
    ASSERT_TRUE(g_notified) << "round " << round << station.output();
    notify_server->stop(SIGKILL);
    while (msgkit_is_connected(MSGKIT_NOTIFY_SERVER) == 1) OrpUvLoopRun(nullptr, 50);
    EXPECT_EQ(1u, msgkit_is_connected(MSGKIT_MESSAGE_SERVER));
    notify_server = start("notifyserver");
  }
  msgkit_disconnect();
}

}  // namespace
