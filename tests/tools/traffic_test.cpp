#include <gmock/gmock.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "common/printable.h"
#include "flight/reader.h"
#include "msgapi/messages.h"
#include "msgapi/restful.h"
#include "tools/recorder_fixture.h"
#include "traffic/decode.h"
#include "traffic/filter.h"
#include "traffic/histogram.h"
#include "traffic/mask.h"
#include "traffic/model.h"
#include "traffic/pcapng.h"

namespace {

using test::dm_body;
using test::kAsk;
using test::kPanel;
using test::kStation;
using test::kThird;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;
using traffic::Event;
using traffic::Filter;
using traffic::Model;

// A recorder, and the events that are read from it.
class Traffic : public test::RecorderFixture {
 protected:
  Traffic() : test::RecorderFixture(kPath, 64) {}

  // Reads everything that has been recorded since; returns the last event.
  Event read() {
    if (!reader_) reader_.emplace(flight::Reader::follow(kPath));
    flight::Entry entry;
    Event last;
    while (reader_->next(&entry) == flight::Reader::Next::kEntry) {
      last = model_.take(entry, reader_->wall_ns(entry.record.time_ns));
    }
    return last;
  }

  bool matches(const std::string &filter, const Event &event) {
    return Filter(filter, catalogue_, event.wall_ns).matches(event, model_);
  }

  std::vector<std::string> waiting() {
    read();
    std::vector<std::string> found;
    for (const traffic::Wait &wait : model_.waits([](uint32_t type) -> std::optional<bool> {
           if (type == ORP_MSG_KEEP_ALIVE) return false;
           return std::nullopt;
         })) {
      found.push_back(model_.label(wait.request->from) + ">" + model_.label(wait.request->to));
    }
    return found;
  }

  static constexpr const char *kPath = "/var/run/traffic_test";
  std::optional<flight::Reader> reader_;
  Model model_;
  catalogue::Catalogue catalogue_;
};

TEST_F(Traffic, LinksAnAnswerWithItsRequest) {
  const uint64_t request = message(kPanel, kStation, kAsk | 0x20000000, 7, "how warm?", 3);
  recorder_.delivered(request, kPanel, kStation, kAsk, 7);
  message(kThird, kStation, kAsk, 7);  // the same numbers, but another pair
  const uint64_t answer = message(kStation, kPanel, kAsk, 7);
  const Event event = read();

  ASSERT_NE(nullptr, event.message);
  EXPECT_EQ(event.message->number, answer);
  ASSERT_NE(nullptr, event.request);
  EXPECT_EQ(event.request->number, request);
  EXPECT_EQ(event.request->answered_by, answer);
  EXPECT_EQ(event.request->type(), kAsk);
  EXPECT_EQ(event.request->board, 1u);
  EXPECT_GE(event.request->delivered_ns, event.request->accepted_ns);
  EXPECT_EQ(model_.label(kPanel), "panel");
  EXPECT_EQ(model_.label(0), "server");
  EXPECT_EQ(model_.label(99), "#99");
}

TEST_F(Traffic, ARepeatedNumberMeansTheLaterMessage) {
  constexpr size_t kMost = 4;
  Model model(kMost);
  test::MadeUpMessage message;
  for (const uint64_t number : {1, 2, 3, 4, 1, 1, 5, 1, 6, 6, 2}) {
    const Event event = model.take(message.numbered(number), 0);
    ASSERT_NE(event.message, nullptr) << number;
    EXPECT_EQ(event.message->header.ulSeqNum, message.sequence());
  }
  EXPECT_EQ(model.messages().size(), kMost);

  // Only the later ones wait for an answer.
  std::vector<std::pair<uint64_t, uint32_t>> waiting;
  for (const traffic::Wait &wait : model.waits([](uint32_t) { return true; })) {
    waiting.emplace_back(wait.request->number, wait.request->header.ulSeqNum);
  }
  EXPECT_THAT(waiting, ElementsAre(Pair(1, 8), Pair(2, 11), Pair(5, 7), Pair(6, 10)));
}

TEST_F(Traffic, KnowsWhoWaits) {
  message(kPanel, kStation, kAsk, 1);
  EXPECT_THAT(waiting(), ElementsAre("panel>station"));

  message(kStation, kPanel, kAsk, 1);
  EXPECT_THAT(waiting(), ElementsAre());

  // A sender that goes on does not wait, unless such messages are known to be answered.
  message(kPanel, kStation, 0x5555, 2);
  message(kPanel, 0, ORP_MSG_KEEP_ALIVE, 3);
  EXPECT_THAT(waiting(), ElementsAre());
  message(kPanel, kStation, kAsk, 4);
  message(kPanel, 0, ORP_MSG_KEEP_ALIVE, 5);
  EXPECT_THAT(waiting(), ElementsAre("panel>station"));

  flight::Record gone;
  gone.from = kStation;
  recorder_.note(flight::Kind::kEnded, gone);
  EXPECT_THAT(waiting(), ElementsAre());
}

TEST_F(Traffic, NamesACircleOfWaits) {
  connect(kThird, "third");
  message(kPanel, kStation, kAsk, 1);
  message(kStation, kThird, kAsk, 2);
  read();
  const auto answered = [](uint32_t) -> std::optional<bool> { return true; };
  EXPECT_THAT(Model::circles(model_.waits(answered)), ElementsAre());

  message(kThird, kPanel, kAsk, 3);
  read();
  EXPECT_THAT(Model::circles(model_.waits(answered)),
              ElementsAre(ElementsAre(kPanel, kStation, kThird)));
}

TEST_F(Traffic, FiltersByWhatARecordTells) {
  const uint64_t number = message(kPanel, kStation, kAsk, 1, "hello world", 42);
  const Event event = read();

  for (const char *filter : {"",
                             "type=0x1234",
                             "type=0x1000-0x1fff",
                             "type=1,0x1234",
                             "type!=0x1235",
                             "from=panel",
                             "from=pan*",
                             "to=station",
                             "app=station",
                             "app=panel app=station",
                             "from=nobody or to=station",
                             "not (from=station or lost)",
                             "not not from=panel",
                             "data=42",
                             "data>41 and data<=42",
                             "length=11",
                             "length=1-20",
                             "body=\"hello world\"",
                             "kind=accepted",
                             "kind=lost,accepted",
                             "since=-5s until=-0s",
                             "not event",
                             "not answer",
                             "from=station or from=panel and data=42",
                             "(from=panel)(data=42)"}) {
    EXPECT_TRUE(matches(filter, event)) << filter;
  }
  for (const char *filter :
       {"type=0x1235", "type=register", "type=*", "from=station", "from!=panel", "lost", "event",
        "data<42", "data!=42", "length>11", "body=HELLO", "kind=delivered", "until=-1s", "answer",
        "loss=queue-full", "from=panel and data=41", "since=2037-12-31T23:59:59"}) {
    EXPECT_FALSE(matches(filter, event)) << filter;
  }

  recorder_.lost(flight::Loss::kQueueFull, number, kPanel, kStation, kAsk, 1);
  const Event loss = read();
  EXPECT_TRUE(matches("lost", loss));
  EXPECT_TRUE(matches("loss=queue-full and type=0x1234", loss));
  EXPECT_FALSE(matches("loss=receiver-gone", loss));

  message(kPanel, 0, ORP_MSG_KEEP_ALIVE, 1);
  const Event known = read();
  EXPECT_TRUE(matches("type=keep-alive to=server", known));
  EXPECT_TRUE(matches("type=keep-*", known));

  EXPECT_TRUE(Filter("app=panel and not (lost or kind=delivered)", catalogue_, 0).names_kind());
  EXPECT_FALSE(Filter("app=kind", catalogue_, 0).names_kind());
  EXPECT_FALSE(Filter().names_kind());
}

// The masked body.
std::string shown_masked(std::string body, bool cut = false) {
  traffic::mask_body(body, cut);
  return body;
}

// A restful request's body.
std::string restful_body(const char *path, const char *handler, const std::string &text) {
  ORP_MSG_RESTFUL_REQ_ST request{};
  request.ulCode = 2;
  std::strcpy(request.aucPath, path);
  std::strcpy(request.aucHandler, handler);
  return std::string(reinterpret_cast<const char *>(&request), sizeof request) + text;
}

TEST(Mask, LeavesNoPersonalDataWhereverItStands) {
  const std::vector<std::string> values = {
      "AA:BB:CC:DD:EE:FF", "192.168.100.24",
      "A1B2C3D4E5F6G7H8",  "01234567-89ab-cdef-0123-456789abcdef",
      "2001:db8::1:2:3",   "hwaddr: 0123456789ab"};
  for (const std::string &value : values) {
    for (const std::string &body :
         {value, "lease " + value + " renewed", dm_body({{"address", value}}),
          "{\"peer\": \"" + value + "\"}", std::string("a\0b", 3) + value}) {
      const std::string shown = shown_masked(body);
      EXPECT_EQ(shown.size(), body.size());
      EXPECT_EQ(shown.find(value), std::string::npos) << value;
    }
    // The body goes on, and what was kept ends within the value.
    const std::string bare = value.substr(value.rfind(' ') + 1);
    for (size_t kept = 3; kept < bare.size(); ++kept) {
      const std::string shown = shown_masked("peer=" + bare.substr(0, kept), true);
      EXPECT_EQ(shown.find(bare.substr(0, kept)), std::string::npos) << shown;
    }
  }
}

TEST(CaptureLabels, HoldNamesAlsoWhereTheyAreCut) {
  for (const auto &[label, name] : {std::pair("station", "station"),
                                    {"station[123]", "station"},
                                    {"wifimanager[123", "wifimanager"},
                                    {"a[b", "a[b"},
                                    {"#7", "#7"}}) {
    EXPECT_EQ(traffic::name_in_label(label), name);
  }
}

TEST(Mask, GoesByTheNamesOfItemsAndMembers) {
  EXPECT_EQ(shown_masked(dm_body({{"SSID", "home-net"}, {"WifiPassword", "hunter22"}, {"n", "5"}})),
            dm_body({{"SSID", "h******t"}, {"WifiPassword", "********"}, {"n", "5"}}));
  EXPECT_EQ(shown_masked(R"({"ssid": "home \"net", "psk":"abc", "imei": 490154203237518, "n": 5})"),
            R"({"ssid": "h********t", "psk":"***", "imei":               0, "n": 5})");
  // A name counts for everything in its value; a text may hold JSON; names may be escaped.
  const std::pair<std::string, std::string> rows[] = {
      {R"({"password": ["hunter2", 12], "n": 5})", R"({"password": ["*******",  0], "n": 5})"},
      {R"({"password": {"value": "x", "n": [3]}, "n": 5})",
       R"({"password": {"value": "*", "n": [0]}, "n": 5})"},
      {R"({"user": {"token": "abc", "name": "admin"}})",
       R"({"user": {"token": "***", "name": "a***n"}})"},
      {R"([{"n": "{\"psk\": \"x\"}"}, "open"])", R"([{"n": "{\"psk\": \"*\"}"}, "open"])"},
      {R"({"n": "\u007b\"psk\": \"a\nb\"}"})", R"({"n": "\u007b\"psk\": \"****\"}"})"},
      {R"({"n": "body {\"a\": \"{\\\"psk\\\": \\\"xyz\\\"}\"}"})",
       R"({"n": "body {\"a\": \"{\\\"psk\\\": \\\"***\\\"}\"}"})"},
      {R"({"pass\u0077ord": "x"})", R"({"pass\u0077ord": "*"})"},
      {R"({"ssid": "\u00e9cole\""})", R"({"ssid": "\u00e9****\""})"},
      {"{\"ssid\": \"\u00e9cole\"}", "{\"ssid\": \"\u00e9***e\"}"},
      {"password=x", "password=*"},
      {"/wifi?ssid=home&psk=abc&n=5", "/wifi?ssid=h**e&psk=***&n=5"},
      {"login --token 'a' --password = \"two words\" -v",
       "login --token 'a' --password = \"*********\" -v"},
      {R"({"n": "pin=47 psk=\"a b\"", "user": 5, "m": "psk="})",
       R"({"n": "pin=** psk=\"***\"", "user": 0, "m": "psk="})"},
      // Escapes within quotes, an escaped sign, and a string that ends where a value would begin.
      {R"({"n":"psk=\"a\\\\b secret\""})", R"({"n":"psk=\"*************\""})"},
      {R"(psk="a\"b c" psk='a\'b')", R"(psk="******" psk='****')"},
      {R"({"n":"psk\u003dabc"})", R"({"n":"psk\u003d***"})"},
      {R"({"a":"xxpin=" , "b":"open"})", R"({"a":"xxpin=" , "b":"open"})"},
      // A quote that does not belong to JSON.
      {R"(5" wide {"psk":"abc"} and "open")", R"(5" wide {"psk":"***"} and "open")"},
      {R"(PreSharedKey=abc wifi_pass=abc {"Authorization": "Bearer abc"})",
       R"(PreSharedKey=*** wifi_pass=*** {"Authorization": "**********"})"}};
  for (const auto &[open, hidden] : rows) EXPECT_EQ(shown_masked(open), hidden);
  // JSON in an item, and after the fields of a restful request.
  EXPECT_EQ(shown_masked(dm_body({{"payload", R"({"psk": "abc"})"}})),
            dm_body({{"payload", R"({"psk": "***"})"}}));
  EXPECT_EQ(shown_masked(restful_body("/a\"b", "wifi", R"({"psk": "abc"})")),
            restful_body("/a\"b", "wifi", R"({"psk": "***"})"));
  // Damaged bodies are masked as far as they go.
  shown_masked(dm_body({{"SSID", "home"}}).substr(0, 40));
  shown_masked("{\"ssid\": \"home");
  std::string lies = dm_body({{"SSID", "home"}});
  lies[28] = '\xff';
  shown_masked(lies);
}

TEST_F(Traffic, ACaptureIsReadBackAsItWasWritten) {
  std::string capture;
  traffic::PcapngWriter writer([&capture](std::string_view bytes) { capture += bytes; }, "test 1.0",
                               "msgsvr");
  message(kPanel, kStation, kAsk, 7, "from 192.168.100.24");
  const Event request = read();
  writer.begin_section("process 1", model_);
  writer.add(request, model_, traffic::Masking::kNone);
  message(kStation, kPanel, kAsk, 7, "yes at 192.168.100.24", 9);
  const Event answer = read();
  writer.add(answer, model_, traffic::Masking::kMask);
  EXPECT_THAT(capture, AllOf(HasSubstr("Clients: 1 panel, 2 station"), HasSubstr("process 1")));
  // The next server uses the same numbers.
  writer.begin_section("process 2", Model());
  writer.add(request, model_, traffic::Masking::kDone);

  traffic::PcapngReader reader(capture);
  std::optional<traffic::Packet> packet = reader.next();
  ASSERT_TRUE(packet && packet->header);
  EXPECT_EQ(packet->from, "panel");
  EXPECT_EQ(packet->to, "station");
  EXPECT_EQ(packet->wall_ns, request.wall_ns);
  EXPECT_EQ(packet->record.number, request.record.number);
  EXPECT_EQ(packet->header->ulMsgType, kAsk);
  EXPECT_EQ(packet->kept, "from 192.168.100.24");
  EXPECT_FALSE(packet->masked);
  EXPECT_EQ(packet->section, 1u);
  packet = reader.next();
  ASSERT_TRUE(packet && packet->header);
  EXPECT_EQ(packet->answers, request.record.number);
  EXPECT_EQ(packet->header->ulMsgData, 9u);
  EXPECT_TRUE(packet->masked);
  EXPECT_THAT(packet->kept, Not(HasSubstr("192.168.100.24")));
  EXPECT_EQ(packet->section, 1u);
  EXPECT_EQ(packet->entry().header.size(), flight::kHeaderSize);
  packet = reader.next();
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->section, 2u);
  EXPECT_EQ(packet->record.number, request.record.number);
  EXPECT_TRUE(packet->masked);
  EXPECT_EQ(packet->kept, "from 192.168.100.24");
  EXPECT_EQ(reader.next(), std::nullopt);

  for (size_t size = 1; size < capture.size(); ++size) {
    traffic::PcapngReader cut(std::string_view(capture).substr(0, size));
    try {
      while (cut.next()) continue;
    } catch (const std::runtime_error &) {
    }
  }
  capture[8] = 'x';
  EXPECT_THROW(traffic::PcapngReader(capture).next(), std::runtime_error);
}

TEST_F(Traffic, ShowsBodiesByTheirContent) {
  const auto line = [this](const std::string &body, uint32_t type = kAsk) {
    message(kPanel, kStation, type, 1, body);
    const Event event = read();
    return traffic::body_line(*event.message, catalogue_);
  };
  EXPECT_EQ(line(""), "");
  EXPECT_EQ(line(std::string("text\0", 5)), "text");
  EXPECT_EQ(line("{\"a\": [1, 2]}"), "{\"a\":[1,2]}");
  EXPECT_EQ(line("{\"a\": \"\x1b[31m\"}"), "hex 7b2261223a20221b5b33316d227d");
  EXPECT_EQ(line(dm_body({{"if", "eth0"}, {"up", "1"}})), "if=eth0 up=1");
  EXPECT_EQ(line(std::string("\1\2\3", 3)), "hex 010203");
  EXPECT_EQ(line(std::string(100, 'x')), std::string(64, 'x') + "...");
  // A text that nests too deeply is shown as text: writing it as JSON would overflow the stack.
  traffic::Message deep;
  deep.body = std::string(200'000, '[') + std::string(200'000, ']');
  deep.length = static_cast<uint32_t>(deep.body.size());
  EXPECT_EQ(traffic::body_line(deep, catalogue_), deep.body);
  EXPECT_TRUE(traffic::parsed(R"(["[[[[", "\"[[[", [[]], [[]]])", 3).is_array());
  EXPECT_TRUE(traffic::parsed("[[[[]]]]", 3).is_discarded());
  EXPECT_EQ(line(std::string("wifi\0\0\0\0\0\0\0\0", 12), ORP_MSG_COUNT_PROCESSES), "wifi");
}

TEST_F(Traffic, JsonMayHaveTheMembersThatToolsUseThemselves) {
  for (const char *text :
       {R"({"items":[1]})", R"({"items":[{}]})", R"({"items":7})", R"({"hex":5})",
        R"({"missing":"x"})", R"({"code":1,"handler":2})", R"({"file":null})"}) {
    traffic::Message foreign;
    foreign.body = text;
    foreign.length = static_cast<uint32_t>(foreign.body.size());
    EXPECT_EQ(traffic::body_line(foreign, catalogue_), text);
  }
}

TEST_F(Traffic, ShowsTheFieldsOfRestfulRequests) {
  const auto shown = [this](const std::string &body, uint32_t length) {
    ORP_MSG_HEADER_ST header{};
    header.ulMsgType = ORP_MSG_RESTFUL_REQUEST;
    recorder_.accepted(kPanel, kStation, &header, length, body);
    return *read().message;
  };
  const auto line = [&](const std::string &body, uint32_t length) {
    return traffic::body_line(shown(body, length), catalogue_);
  };
  const std::string body = restful_body("/dev", "na\x1bme", std::string("{\"a\": 1}\0", 9));
  recorder_ = flight::Recorder(kPath, flight::kLeastRing, 256);
  EXPECT_EQ(line(body, 145), "code=2 path=/dev handler=na\\x1bme text={\"a\":1}");
  EXPECT_EQ(line(restful_body("/dev", "name", "new\x1b"), 140),
            "code=2 path=/dev handler=name text=new\\x1b");
  EXPECT_EQ(line(restful_body("/dev", "name", ""), 136), "code=2 path=/dev handler=name");
  // A body that was not kept whole, and one that is too short for a request.
  EXPECT_EQ(line(body.substr(0, 64), 145), "code=2 path=/dev handler= ...");
  EXPECT_EQ(line(body.substr(0, 7), 7), "hex 02000000000000");
  const traffic::Json json = traffic::body_json(shown(body, 200), catalogue_);
  EXPECT_EQ(json["text"]["a"], 1);
  EXPECT_EQ(json["missing"], 200 - body.size());
}

TEST(Histogram, KnowsQuantilesToThreePercent) {
  traffic::Histogram histogram;
  EXPECT_EQ(histogram.quantile(0.5), 0u);
  for (uint64_t i = 1; i <= 100'000; ++i) histogram.add(i * 1000);
  for (const double fraction : {0.01, 0.5, 0.9, 0.99}) {
    const double exact = fraction * 1e8;
    EXPECT_NEAR(static_cast<double>(histogram.quantile(fraction)), exact, exact * 0.032);
  }
  EXPECT_EQ(histogram.quantile(1), 100'000'000u);
  EXPECT_EQ(histogram.between(0, ~uint64_t{0}), 100'000u);
  histogram.add(~uint64_t{0});
  histogram.add(0);
  EXPECT_EQ(histogram.max(), ~uint64_t{0});
}

TEST(Filter, SaysWhatIsWrongAndWhere) {
  const catalogue::Catalogue catalogue;
  const auto mistake = [&catalogue](const std::string &text) -> std::string {
    try {
      Filter filter(text, catalogue, 0);
    } catch (const traffic::FilterError &error) {
      return error.what();
    }
    return "";
  };

  EXPECT_THAT(mistake("from=a and"), HasSubstr("column 11: a term is missing"));
  EXPECT_THAT(mistake("(from=a"), HasSubstr("not closed"));
  EXPECT_THAT(mistake("from=a)"), HasSubstr("column 7"));
  EXPECT_THAT(mistake("panel"), HasSubstr("no term"));
  EXPECT_THAT(mistake("form=panel"), HasSubstr("no such key"));
  EXPECT_THAT(mistake("type=no-such-type"), HasSubstr("no such type"));
  EXPECT_THAT(mistake("type<5"), HasSubstr("only be compared"));
  EXPECT_THAT(mistake("data=5-2"), HasSubstr("no range"));
  EXPECT_THAT(mistake("data=99999999999999999999"), HasSubstr("no number"));
  EXPECT_THAT(mistake("from=a,,b"), HasSubstr("value of the list"));
  EXPECT_THAT(mistake("from="), HasSubstr("value is missing"));
  EXPECT_THAT(mistake("kind=nothing"), HasSubstr("no such kind"));
  EXPECT_THAT(mistake("since=yesterday"), HasSubstr("no time"));
  EXPECT_THAT(mistake("since=-5"), HasSubstr("no time"));
  EXPECT_THAT(mistake("bad\x1b[31m"), HasSubstr("bad\\x1b[31m"));
  EXPECT_THAT(mistake(std::string(1000, '(')), HasSubstr("too many"));
}

TEST(Printable, ShowsWhatCouldCommandATerminal) {
  EXPECT_EQ(servers::printable("plain \xc3\xa9\xe2\x82\xac\xf0\x9f\x99\x82"),
            "plain \xc3\xa9\xe2\x82\xac\xf0\x9f\x99\x82");
  EXPECT_EQ(servers::printable(std::string_view("\x1b[2J\n\0\x7f", 7)), "\\x1b[2J\\x0a\\x00\\x7f");
  EXPECT_EQ(servers::printable("\xc2\x9b\x9b\xff\xc3"), "\\xc2\\x9b\\x9b\\xff\\xc3");
  // Overlong forms, a surrogate, and beyond the last code point (RFC 3629, 3).
  EXPECT_EQ(servers::printable("\xc0\xaf\xe0\x80\xaf\xed\xa0\x80\xf4\x90\x80\x80"),
            "\\xc0\\xaf\\xe0\\x80\\xaf\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80");
  EXPECT_EQ(servers::printable("a\n\tb\r", "\n\t"), "a\n\tb\\x0d");
  EXPECT_EQ(servers::printable_json("\"\x7f\xc2\x9b\xc2\xa0\xc3\xa9\xc2"),
            "\"\\u007f\\u009b\xc2\xa0\xc3\xa9\xc2");
}

}  // namespace
