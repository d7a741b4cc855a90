// Restful requests by HTTP, with curl.

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "msgapi/restful.h"
#include "servers/http_client.h"
#include "servers/restful.h"
#include "support/message_peer.h"

namespace {

using test::Frame;
using test::RawClient;
using test::Restful;
using testing::HasSubstr;

TEST_F(Restful, AnswersThroughTheApplication) {
  const struct {
    const char *options;
    uint32_t code;
    std::string text;
    std::string answer, type;
  } kCases[] = {
      {"", 0, "q=1&y=a%20b", " {\"up\": true}", "application/json"},
      {"-d @/var/body", 1, std::string(100000, 'b'), "{no json", "text/plain; charset=utf-8"},
      {"-X PUT -d a", 2, "a", "[]", "application/json"},
      {"-X DELETE", 3, "q=1&y=a%20b", "1", "text/plain; charset=utf-8"},
      {"-X PATCH -d b", 4, "b", "x", "text/plain; charset=utf-8"},
  };
  std::ofstream("/var/body") << std::string(100000, 'b');

  for (const auto &each : kCases) {
    auto got = curl("/dev/info?q=1&y=a%20b", each.options);
    const Frame request = next_request();
    EXPECT_EQ(ORP_MSG_RESTFUL_REQUEST, request.type);
    EXPECT_EQ("status", request.to);
    EXPECT_EQ(each.code, head_of(request).ulCode);
    EXPECT_STREQ("/dev", head_of(request).aucPath);
    EXPECT_STREQ("info", head_of(request).aucHandler);
    EXPECT_TRUE(each.text == text_of(request)) << each.options;
    answer(app_.get(), request, each.answer);
    EXPECT_EQ(each.answer + "|200|" + each.type, got.get());
  }
}

TEST_F(Restful, SaysWhyThereIsNoAnswer) {
  EXPECT_THAT(
      curl("/dev/set", "-X OPTIONS -D -").get(),
      testing::AllOf(HasSubstr("405"), HasSubstr("Allow: GET, HEAD, POST, PUT, DELETE, PATCH")));
  for (const std::string path : {"/other/info", "/dev", "/dev/", "/dev/a/b"}) {
    EXPECT_EQ("404", status_of(path)) << path;
  }
  EXPECT_EQ("404", status_of("/dev/" + std::string(64, 'h')));

  auto gone = curl("/dev/info");
  app_->read();
  app_->close();
  EXPECT_EQ("502", status_in(gone.get()));
  EXPECT_EQ("404", status_of("/dev/info"));

  // An answer that comes too late is dropped.
  serve({"--http-timeout", "500"});
  auto slow = curl("/dev/info");
  const Frame request = next_request();
  EXPECT_EQ("504", status_in(slow.get()));
  EXPECT_TRUE(server_->wait_for("has not answered GET /dev/info"));
  answer(app_.get(), request, "late");
  app_->drain();
}

TEST_F(Restful, RefusesBodiesThatNoApplicationWouldBeGiven) {
  const size_t longest = ORP_MSG_MAX_DISPATCHED_BODY - sizeof(ORP_MSG_RESTFUL_REQ_ST) - 1;
  std::ofstream("/var/longest") << std::string(longest, 'b');
  std::ofstream("/var/longer") << std::string(longest + 1, 'b');

  for (const char *how : {"", "-H 'Transfer-Encoding: chunked' ", "-H 'Expect:' "}) {
    const std::string options = std::string(how) + "-X POST --data-binary @/var/";
    EXPECT_EQ("413", status_of("/dev/set", options + "longer")) << how;
    auto fits = curl("/dev/set", options + "longest");
    const Frame request = next_request();
    EXPECT_EQ(longest, text_of(request).size());
    answer(app_.get(), request, "ok");
    EXPECT_EQ("ok|200|text/plain; charset=utf-8", fits.get());
  }
}

TEST_F(Restful, FindsTheLongestMatchingRegistration) {
  for (const char *texts : {"/net/wan|/net/lan/up", "/api/*", "/api/?an/*/state|/api/**/deep"}) {
    enter(texts);
  }

  EXPECT_EQ("/dev info", target_of("/dev/info"));
  EXPECT_EQ("/net wan", target_of("/net/wan"));
  EXPECT_EQ("/net/lan up", target_of("/net/lan/up"));
  // A registration without a list would also serve what is below it.
  EXPECT_EQ("404", target_of("/net/wan/up"));
  EXPECT_EQ("/api/* status", target_of("/api/wan/status"));
  EXPECT_EQ("/api/?an/* state", target_of("/api/lan/1/state"));
  EXPECT_EQ("/api/** deep", target_of("/api/x/y/z/deep"));
  EXPECT_EQ("404", target_of("/api/x/y/z/shallow"));
  // A text that is no path serves nothing, nor one that does not fit the message.
  enter("*|?ev");
  enter("/" + std::string(64, 'p') + "/x|/x/" + std::string(64, 'h'));
  EXPECT_EQ("404", target_of("/other"));
  EXPECT_EQ("404", target_of("/" + std::string(64, 'p') + "/x"));
  EXPECT_EQ("404", target_of("/x/" + std::string(64, 'h')));
}

TEST_F(Restful, CountsAPathOnceHoweverOftenItIsRegistered) {
  serve({"--user-paths", "4"});  // one application may have a quarter
  for (const char *texts : {"/dev", "||/dev||", "|"}) {
    app_->send({.type = ORP_MSG_RESTFUL_REGISTER, .body = texts + std::string(1, '\0')});
    EXPECT_THAT(app_->drain(), testing::IsEmpty()) << texts;
  }
  EXPECT_EQ("/dev info", target_of("/dev/info"));
  for (const char *texts : {"/other", "/dev|/dev"}) {
    expect_refusal(*app_, {.type = ORP_MSG_RESTFUL_REGISTER, .body = texts + std::string(1, '\0')});
  }
}

TEST_F(Restful, AsksForAnotherTryWhenABodyFindsNoRoom) {
  const std::string kNoRoom = "no room for the body\n|503|text/plain";
  const size_t longest_inline = ORP_MSG_MAX_INLINE_BODY - sizeof(ORP_MSG_RESTFUL_REQ_ST) - 1;
  std::ofstream("/var/long") << std::string(100000, 'b');
  std::ofstream("/var/longer") << std::string(longest_inline + 1, 'b');
  std::ofstream("/var/longest") << std::string(longest_inline, 'b');
  std::filesystem::rename("/var/run/msg", "/var/run/gone");

  EXPECT_EQ(kNoRoom, curl("/dev/set", "-d @/var/long").get());
  EXPECT_EQ(kNoRoom, curl("/dev/set", "-d @/var/longer").get()) << "the NUL is too much";
  EXPECT_EQ(kNoRoom, curl("/dev/set?" + std::string(longest_inline + 1, 'q')).get());
  EXPECT_EQ(kNoRoom, curl("/dev/set?" + std::string(longest_inline + 2, 'q')).get());
  auto fits = curl("/dev/set", "-d @/var/longest");
  answer(app_.get(), next_request(), "ok");
  EXPECT_EQ("200", status_in(fits.get()));

  std::filesystem::rename("/var/run/gone", "/var/run/msg");
  auto again = curl("/dev/set", "-d @/var/long");
  answer(app_.get(), next_request(), "ok");
  EXPECT_EQ("200", status_in(again.get()));
}

// Messages of anybody that cannot be read are not taken for the application's answer.
TEST_F(Restful, FailsARequestOnlyForItsApplicationsTrouble) {
  RawClient other("other");
  auto got = curl("/dev/info");
  const Frame request = next_request();
  const std::string no_file =
      test::padded(std::string(ORP_MSG_HAND_OVER_PREFIX) + "9", ORP_MSG_HAND_OVER_PATH_SIZE);
  const auto refused = [&](RawClient *client, uint32_t type, const std::string &to,
                           uint32_t sequence) {
    expect_refusal(*client, {.type = type | ORP_MSG_TYPE_BODY_IN_FILE,
                             .to = to,
                             .body = no_file,
                             .sequence = sequence});
  };
  refused(&other, ORP_MSG_RESTFUL_REQUEST, "mic", request.sequence);
  refused(app_.get(), ORP_MSG_RESTFUL_REQUEST, "mic", request.sequence + 1);
  refused(app_.get(), ORP_MSG_RESTFUL_REQUEST, "", request.sequence);
  refused(app_.get(), ORP_MSG_SUBSCRIBE, "mic", request.sequence);

  answer(app_.get(), request, "ok");
  EXPECT_EQ("200", status_in(got.get()));
}

TEST_F(Restful, GivesAnApplicationOfAnotherBoardTheWholeBody) {
  RawClient board = serve_board();
  const std::string body(100000, 'b');
  std::ofstream("/var/body") << body;

  auto got = curl("/board/info", "-d @/var/body");

  const Frame request = board.read();
  EXPECT_EQ(ORP_MSG_RESTFUL_REQUEST, request.type) << "it shares no files with the server";
  EXPECT_STREQ("/board", head_of(request).aucPath);
  EXPECT_TRUE(body == text_of(request));
  answer(&board, request, "far");
  EXPECT_EQ("far|200|text/plain; charset=utf-8", got.get());
  EXPECT_TRUE(std::filesystem::is_empty("/var/run/msg"));
}

TEST_F(Restful, TellsWhoRegistersAPathThatCannotBe) {
  RawClient client("client");
  std::string many;
  for (int i = 0; i <= 4096; ++i) many += "/p|";
  for (const std::string &texts :
       {"/" + std::string(127, 'p'), "/ok|/" + std::string(127, 'p'), many}) {
    expect_refusal(client, {.type = ORP_MSG_RESTFUL_REGISTER, .body = texts + '\0'});
  }
  client.send({.type = ORP_MSG_RESTFUL_REGISTER, .body = "/" + std::string(126, 'p') + '\0'});
  EXPECT_THAT(client.drain(), testing::IsEmpty());
}

TEST_F(Restful, TakesTheApplicationsAnswerAloneAlsoFromAFile) {
  RawClient impostor("impostor");
  auto got = curl("/dev/info");
  const Frame request = next_request();
  answer(&impostor, request, "forged");
  impostor.drain();
  Frame wrong = request;
  ++wrong.sequence;
  answer(app_.get(), wrong, "wrong");

  const std::string text(70000, 't');
  const std::string file = answer_in_file(request, text);

  EXPECT_TRUE(text + "|200|text/plain; charset=utf-8" == got.get());
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(Restful, PassesRequestsOfOtherApplicationsOn) {
  RawClient front("front");
  const ORP_MSG_RESTFUL_REQ_ST head{0, 0, "/dev", "info"};
  const std::string body = bytes_of(head) + "text" + '\0';

  front.send({.type = ORP_MSG_RESTFUL_REQUEST, .body = body, .sequence = 21});
  const Frame request = next_request();
  EXPECT_EQ("front", request.from);
  EXPECT_EQ(body, request.body);
  answer(app_.get(), request, "direct");
  const Frame reply = front.read();
  EXPECT_EQ(21u, reply.sequence);
  EXPECT_STREQ("direct", reply.body.c_str());

  const ORP_MSG_RESTFUL_REQ_ST none{0, 0, "/none", "info"};
  expect_refusal(front, {.type = ORP_MSG_RESTFUL_REQUEST, .body = bytes_of(none) + '\0'});

  // The requester gives the registration's own text; also one of a list.
  enter("/net/wan|/net/lan");
  const ORP_MSG_RESTFUL_REQ_ST listed{0, 0, "/net", "lan"};
  front.send({.type = ORP_MSG_RESTFUL_REQUEST, .body = bytes_of(listed) + '\0'});
  EXPECT_STREQ("lan", head_of(next_request()).aucHandler);
  const ORP_MSG_RESTFUL_REQ_ST below{0, 0, "/net/lan", "up"};
  expect_refusal(front, {.type = ORP_MSG_RESTFUL_REQUEST, .body = bytes_of(below) + '\0'});
}

TEST_F(Restful, SurvivesHttpClientsThatLeave) {
  for (int i = 0; i < 10; ++i) {
    Frame request;
    {
      const test::HttpClient client;
      ASSERT_TRUE(client.send("GET /dev/info HTTP/1.1\r\nHost: localhost\r\n\r\n"));
      request = next_request();
    }
    answer(app_.get(), request, "nobody reads this");
  }
  EXPECT_EQ("/dev info", target_of("/dev/info"));
}

TEST_F(Restful, AnswersHead) {
  auto got = curl("/dev/info", "-I");
  const Frame request = next_request();
  EXPECT_EQ(0u, head_of(request).ulCode);
  answer(app_.get(), request, "text");
  EXPECT_THAT(got.get(), testing::AllOf(HasSubstr("200 OK"), HasSubstr("Content-Length: 4"),
                                        testing::Not(HasSubstr("text|"))));
}

// Not after a time-out, which is another status.
TEST_F(Restful, SaysAtOnceThatAnAnswerIsTooLong) {
  for (const bool in_file : {false, true}) {
    auto got = curl("/dev/info");
    const Frame request = next_request();
    const std::string text(ORP_MSG_MAX_DISPATCHED_BODY + 1, 't');
    if (in_file) {
      answer_in_file(request, text);
    } else {
      answer(app_.get(), request, text);
    }
    EXPECT_EQ("502", status_in(got.get()));
    EXPECT_TRUE(server_->wait_for("cannot be passed on: too long"));
    app_->drain();
  }
}

}  // namespace
