// The message server's flight recorder after real traffic.

#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "flight/reader.h"
#include "servers/services.h"
#include "support/message_peer.h"
#include "support/process.h"

namespace {

using flight::Entry;
using flight::Kind;
using flight::Loss;
using flight::Reader;
using test::kType;
using test::kUnservedType;
using test::RawClient;
using testing::_;
using testing::FieldsAre;
using testing::HasSubstr;

// A copy of an entry.
struct Noted {
  flight::Record record;
  ORP_MSG_HEADER_ST header{};
  std::string text;

  Kind kind() const { return static_cast<Kind>(record.kind); }
  Loss loss() const { return static_cast<Loss>(record.loss); }
};

class MsgsvrFlight : public test::Services {
 protected:
  static std::vector<Noted> records(const std::string &path = flight::kPath) {
    Reader reader = Reader::load(path);
    std::vector<Noted> all;
    Entry entry;
    Reader::Next next;
    while ((next = reader.next(&entry)) == Reader::Next::kEntry) {
      Noted noted{entry.record, {}, std::string(entry.text())};
      if (!entry.header.empty()) {
        std::memcpy(&noted.header, entry.header.data(), sizeof noted.header);
      }
      all.push_back(noted);
    }
    EXPECT_EQ(Reader::Next::kNothing, next);
    EXPECT_EQ(0u, reader.missed());
    return all;
  }

  static std::vector<Noted> of(const std::vector<Noted> &all, Kind kind, Loss loss = Loss::kNone) {
    std::vector<Noted> found;
    std::ranges::copy_if(all, std::back_inserter(found), [&](const Noted &each) {
      return each.kind() == kind && each.loss() == loss;
    });
    return found;
  }

  // The server's number of the last client with this name.
  static uint32_t id_of(const std::vector<Noted> &all, const std::string &name) {
    uint32_t id = 0;
    for (const Noted &each : of(all, Kind::kNamed)) {
      if (each.text == name) id = each.record.from;
    }
    EXPECT_NE(0u, id) << name;
    return id;
  }

  // The record of `kind` about the message that `from` sent with that sequence number.
  static std::optional<Noted> fate(const std::vector<Noted> &all, uint32_t sequence, Kind kind) {
    for (const Noted &accepted : of(all, Kind::kAccepted)) {
      if (accepted.header.ulSeqNum != sequence || accepted.record.from == 0) continue;
      for (const Noted &each : all) {
        if (each.kind() == kind && each.record.about == accepted.record.number) return each;
      }
    }
    return std::nullopt;
  }

  // Whom a record is about, and its two numbers.
  static auto facts(const Noted &of) {
    return std::tuple(of.record.from, of.record.to, of.record.a, of.record.b);
  }

  // The counter that follows `words` in the first line of the statistics.
  uint64_t counter(const std::string &words) const {
    std::smatch match;
    const std::string &all = server_->output();
    const size_t start = all.rfind(" connections; in ");
    if (start == std::string::npos) return UINT64_MAX;
    const std::string line = all.substr(start, all.find('\n', start) - start);
    if (!std::regex_search(line, match, std::regex(words + " (\\d+)"))) return UINT64_MAX;
    return std::stoull(match[1]);
  }
};

TEST_F(MsgsvrFlight, RecordsEachMessageItsFateAndItsClients) {
  start({"--flight", "65537", "--flight-body", "4"});
  EXPECT_EQ(131072u, Reader::load(flight::kPath).head().ring_size);
  RawClient a("a");
  RawClient b("b");
  a.send({.type = kType, .to = "b", .body = "hello", .data = 9, .sequence = 1});
  b.read();
  a.send({.type = kType, .to = "nobody", .sequence = 2});
  a.read();
  a.send({.type = kUnservedType, .to = "mic", .sequence = 3});
  a.read();
  // One event, accepted once for the server and delivered twice.
  for (RawClient *each : {&a, &b}) {
    each->send({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_EVENT_WLAN});
    each->drain();
  }
  a.send({.type = ORP_MSG_EVENT_WLAN, .body = "event", .sequence = 4});
  a.read();
  b.read();
  a.send({.type = kType, .to = "b", .sequence = 5});
  ASSERT_TRUE(test::send_with_descriptors(a.fd(), std::string(2, '\0')));
  b.read();
  EXPECT_EQ(std::string(2, '\0'), b.receive_bytes(2));
  // A long message whose sender stops.
  const std::string cut =
      test::Frame{.type = kType, .to = "b", .body = std::string(200000, 'x'), .sequence = 6}.bytes(
          "a");
  a.send_bytes(cut.substr(0, 100000));
  EXPECT_TRUE(server_->wait_for("is cut short"));
  b.read();
  const std::chrono::nanoseconds before_close = std::chrono::steady_clock::now().time_since_epoch();
  b.close();
  a.close();
  RawClient bad("bad");
  bad.send_bytes(test::Frame{.type = kType, .to = "twelve bytes", .sequence = 7}.bytes("bad"));
  EXPECT_TRUE(bad.closed());

  const std::vector<Noted> all = records();
  const uint32_t id_a = id_of(all, "a");
  const uint32_t id_b = id_of(all, "b");

  const auto connected = of(all, Kind::kConnected);
  ASSERT_EQ(3u, connected.size());
  EXPECT_THAT(facts(connected[0]), FieldsAre(id_a, 0u, ::getpid(), ::getuid()));
  EXPECT_EQ(std::filesystem::read_symlink("/proc/self/exe"), connected[0].text);

  const Noted first = fate(all, 1, Kind::kDelivered).value();
  EXPECT_THAT(facts(first), FieldsAre(id_a, id_b, kType, 1u));
  const auto accepted = std::ranges::find(all, first.record.about,
                                          [](const Noted &each) { return each.record.number; });
  EXPECT_THAT(facts(*accepted), FieldsAre(id_a, id_b, 5u, _));
  EXPECT_EQ("hell", accepted->text);
  EXPECT_EQ(9u, accepted->header.ulMsgData);
  EXPECT_LE(accepted->record.time_ns, first.record.time_ns);

  const Noted unknown = fate(all, 2, Kind::kLost).value();
  EXPECT_EQ(Loss::kNoSuchName, unknown.loss());
  EXPECT_EQ(0u, unknown.record.to);
  EXPECT_EQ(Loss::kNotServed, fate(all, 3, Kind::kLost).value().loss());

  const uint64_t event = fate(all, 4, Kind::kDelivered).value().record.about;
  std::set<uint32_t> receivers;
  for (const Noted &each : of(all, Kind::kDelivered)) {
    if (each.record.about != event) continue;
    EXPECT_EQ(id_a, each.record.from);
    receivers.insert(each.record.to);
  }
  EXPECT_EQ((std::set<uint32_t>{id_a, id_b}), receivers);

  EXPECT_EQ(id_b, fate(all, 5, Kind::kDescriptor).value().record.to);

  EXPECT_EQ(Loss::kCutShort, fate(all, 6, Kind::kLost).value().loss());
  EXPECT_FALSE(fate(all, 6, Kind::kDelivered));
  const auto malformed = of(all, Kind::kLost, Loss::kMalformed);
  ASSERT_EQ(1u, malformed.size());
  EXPECT_EQ(7u, malformed[0].record.b);

  const auto ended = of(all, Kind::kEnded);
  ASSERT_EQ(3u, ended.size());
  EXPECT_THAT(facts(ended[0]), FieldsAre(id_b, _, 1u, _));
  EXPECT_GE(ended[0].record.time_ns, static_cast<uint64_t>(before_close.count()))
      << "its own time, not that of the last bytes before it";
  EXPECT_THAT(ended[2].text, HasSubstr("unterminated name"));
}

TEST_F(MsgsvrFlight, CountsWhatTheStatisticsCount) {
  start({"--queue", "140000", "--patience", "10", "--flight", "16000000", "--user-points", "4"});
  RawClient a("a");
  RawClient slow("slow");
  RawClient gone("gone");
  // A queue that overflows and is emptied, and one whose reader leaves.
  for (uint32_t i = 0; i < 2000; ++i) {
    for (const char *to : {"slow", "gone", "nobody"}) {
      a.send({.type = kType, .to = to, .body = std::string(i % 900, 'x')});
    }
    while (!a.quiet()) a.read();
  }
  a.drain();
  gone.close();
  slow.drain();
  // A single connection may have one point.
  for (const char *point : {"p", "q"}) a.send({.type = ORP_MSG_SYNC_POST, .body = point});
  a.drain();
  // A descriptor goes where the message before it went. This one went nowhere.
  a.send({.type = kType, .to = "nobody", .sequence = 77});
  ASSERT_TRUE(test::send_with_descriptors(a.fd(), std::string(2, '\0')));
  EXPECT_TRUE(server_->wait_for("a descriptor of"));
  a.drain();
  // Inside a message it ends its client.
  RawClient inside("inside");
  ASSERT_TRUE(test::send_with_descriptors(inside.fd(), "ab"));
  EXPECT_TRUE(inside.closed());

  ::kill(server_->pid(), SIGUSR1);
  EXPECT_TRUE(server_->wait_for("given up"));
  const std::vector<Noted> all = records();
  const std::pair<Loss, const char *> kLosses[] = {
      {Loss::kNoSuchName, "no such name"},    {Loss::kQueueFull, "queue full"},
      {Loss::kReceiverGone, "receiver died"}, {Loss::kCutShort, "cut short"},
      {Loss::kNotServed, "not served"},       {Loss::kNotPermitted, "not permitted"},
      {Loss::kDescriptor, "refused"},         {Loss::kMalformed, "malformed"}};
  for (const auto &[loss, words] : kLosses) {
    EXPECT_EQ(counter(words), of(all, Kind::kLost, loss).size()) << words;
  }
  EXPECT_EQ(2001u, counter("no such name"));
  EXPECT_GT(counter("queue full"), 0u);
  EXPECT_GT(counter("receiver died"), 0u);
  EXPECT_EQ(1u, counter("not permitted"));
  const auto descriptors = of(all, Kind::kLost, Loss::kDescriptor);
  ASSERT_EQ(2u, descriptors.size());
  EXPECT_EQ(id_of(all, "inside"), descriptors[1].record.from);
  EXPECT_EQ(77u, descriptors[0].record.b);
  EXPECT_EQ(descriptors[0].record.about, fate(all, 77, Kind::kLost)->record.about);
  EXPECT_EQ(counter("; in"), std::ranges::count_if(of(all, Kind::kAccepted), [](const Noted &n) {
              return n.record.from != 0;
            }));
  EXPECT_EQ(counter("; out"), of(all, Kind::kDelivered).size());
  // Every message has exactly one fate, except for those to the server.
  std::map<uint64_t, int> fates;
  for (const Noted &each : all) {
    if (each.kind() == Kind::kDelivered || each.kind() == Kind::kLost) ++fates[each.record.about];
  }
  for (const Noted &each : of(all, Kind::kAccepted)) {
    if (each.record.to == 0) continue;
    EXPECT_EQ(1, fates[each.record.number]) << each.record.number;
  }

  const uint32_t id = id_of(all, "slow");
  const auto backlog = of(all, Kind::kBacklog);
  const auto full = std::ranges::find(backlog, id, [](const Noted &n) { return n.record.to; });
  ASSERT_NE(full, backlog.end());
  EXPECT_THAT(facts(*full), FieldsAre(_, id, testing::Gt(70000u), 140000u));
  const auto relieved = of(all, Kind::kRelieved);
  ASSERT_EQ(1u, relieved.size());
  EXPECT_THAT(facts(relieved[0]), FieldsAre(_, id, testing::Gt(0u), _));
}

TEST_F(MsgsvrFlight, RecordsHttpRequestsAndTheirAnswers) {
  start({"--http", "8080"});
  EXPECT_EQ(0, std::system("curl -s -o /dev/null -d body http://127.0.0.1:8080/no/such && "
                           "curl -s -o /dev/null -X OPTIONS http://127.0.0.1:8080/x"));

  const std::vector<Noted> all = records();
  const auto requests = of(all, Kind::kHttpRequest);
  const auto answers = of(all, Kind::kHttpAnswer);
  ASSERT_EQ(2u, requests.size());
  ASSERT_EQ(2u, answers.size());
  EXPECT_EQ("/no/such", requests[0].text);
  EXPECT_THAT(facts(requests[0]), FieldsAre(0u, 0u, 1u, 4u));
  EXPECT_EQ(UINT32_MAX, requests[1].record.a);
  EXPECT_EQ(404u, answers[0].record.a);
  EXPECT_EQ(405u, answers[1].record.a);
  for (size_t i = 0; i < 2; ++i) EXPECT_EQ(requests[i].record.number, answers[i].record.about);
}

TEST_F(MsgsvrFlight, SurvivesTheServerAndIsMovedAsideByTheNext) {
  start();
  RawClient a("a");
  RawClient b("b");
  for (const uint32_t sequence : {77u, 78u}) {
    a.send({.type = kType, .to = "b", .sequence = sequence});
    b.read();
  }
  server_->stop(SIGKILL);
  const std::vector<Noted> all = records();
  EXPECT_TRUE(fate(all, 77, Kind::kDelivered));
  // A message is recorded before it arrives, its delivery perhaps a moment later.
  EXPECT_EQ(1, std::ranges::count_if(of(all, Kind::kAccepted),
                                     [](const Noted &each) { return each.header.ulSeqNum == 78; }));
  EXPECT_EQ(std::filesystem::perms{0600}, std::filesystem::status(flight::kPath).permissions());

  start();
  EXPECT_TRUE(fate(records(std::string(flight::kPath) + ".1"), 77, Kind::kDelivered));
  EXPECT_TRUE(of(records(), Kind::kAccepted).empty());
  // A server that does not get the socket leaves the file to the server that has the socket.
  test::Process second("msgsvr");
  EXPECT_EQ(1, second.wait());
  RawClient c("c");
  c.drain();
  EXPECT_EQ(1u, of(records(), Kind::kNamed).size());
}

TEST_F(MsgsvrFlight, IsOffWhenToldSoOrImpossible) {
  start({"--flight", "0"});
  RawClient("a").drain();
  EXPECT_FALSE(std::filesystem::exists(flight::kPath));
  server_->stop(SIGTERM);

  std::filesystem::create_directories(std::string(flight::kPath) + ".new/x");
  start();
  EXPECT_THAT(server_->output(), HasSubstr("the flight recorder is off"));
  RawClient("a").drain();
  std::filesystem::remove_all(std::string(flight::kPath) + ".new");
}

}  // namespace
