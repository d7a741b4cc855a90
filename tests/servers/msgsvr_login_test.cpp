// Login control of the message server: who may not log in, for how long, and after a restart.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "msgapi/login_records.h"
#include "servers/services.h"
#include "support/file.h"
#include "support/message_peer.h"

namespace {

using test::Frame;
using test::RawClient;
using test::Services;
using testing::HasSubstr;
using testing::Not;

class Login : public Services {
 protected:
  Login() { restart(); }

  void restart(int signal = SIGTERM, const std::vector<std::string> &arguments = {}) {
    if (server_) server_->stop(signal);
    start(arguments);
    web_ = std::make_unique<RawClient>("web");
  }

  template <typename Result, typename Record>
  Result exchange(uint32_t type, const Record &record) {
    const Frame reply = web_->ask({.type = type, .body = bytes_of(record)});
    Result result{};
    EXPECT_EQ(sizeof result, reply.body.size());
    reply.body.copy(reinterpret_cast<char *>(&result), sizeof result);
    return result;
  }

  ORP_LCTRL_RESULT_ST attempt(const std::string &address, uint32_t outcome = ORP_LCTRL_FAILED,
                              const std::string &account = "admin",
                              uint32_t type = ORP_LCTRL_MSG_LOGIN) {
    ORP_LCTRL_REQUEST_ST request{};
    request.ulOutcome = outcome;
    address.copy(request.aucClient, sizeof request.aucClient - 1);
    account.copy(request.aucAccount, sizeof request.aucAccount - 1);
    return exchange<ORP_LCTRL_RESULT_ST>(type, request);
  }

  ORP_LCTRL_RESULT_ST check(const std::string &address, const std::string &account = "admin") {
    return attempt(address, ORP_LCTRL_SUCCEEDED, account, ORP_LCTRL_MSG_CHECK);
  }

  static uint32_t number_of(const char *address) {
    uint32_t number = 0;
    ::inet_pton(AF_INET, address, &number);
    return number;
  }

  uint32_t round_of(const char *address) {
    const ORP_LCTRL_QUERY_ST query{number_of(address), {}};
    return exchange<ORP_LCTRL_ROUND_ST>(ORP_LCTRL_MSG_GET_ROUND, query).ulRound;
  }

  void clear(const char *address) {
    web_->send({.type = ORP_LCTRL_MSG_CLEAR_FORBIDDEN, .body = bytes_of(number_of(address))});
  }

  void set_limit(ORP_LCTRL_LIMIT_ST limit) {
    web_->send({.type = ORP_LCTRL_MSG_SET_MAX_FAILED, .body = bytes_of(limit)});
  }

  static constexpr const char *kState = "/var/msgsvr-login.json";
  std::unique_ptr<RawClient> web_;
};

TEST_F(Login, ForbidsAClientAnAccountAfterTooManyFailures) {
  set_limit({3, 1000});

  for (uint32_t failed = 1; failed < 3; ++failed) {
    const auto result = attempt("10.0.0.2");
    EXPECT_EQ(ORP_LCTRL_ALLOWED, result.ulVerdict);
    EXPECT_EQ(failed, result.ulFailedTimes);
    EXPECT_EQ(3 - failed, result.ulTimesLeft);
  }
  EXPECT_EQ(3u, attempt("10.0.0.2", ORP_LCTRL_SUCCEEDED).ulTimesLeft) << "the count starts anew";
  for (int i = 0; i < 2; ++i) attempt("10.0.0.2");
  const auto last = attempt("10.0.0.2");
  EXPECT_EQ(ORP_LCTRL_FORBIDDEN, last.ulVerdict);
  EXPECT_EQ(1u, last.ulRound);
  EXPECT_THAT(last.ulForbiddenTime, testing::AllOf(testing::Gt(900u), testing::Le(1000u)));

  // Not even with the right password; others and other accounts may.
  EXPECT_EQ(ORP_LCTRL_FORBIDDEN, attempt("10.0.0.2", ORP_LCTRL_SUCCEEDED).ulVerdict);
  EXPECT_EQ(ORP_LCTRL_FORBIDDEN, check("10.0.0.2").ulVerdict);
  EXPECT_EQ(ORP_LCTRL_ALLOWED, check("10.0.0.2", "user").ulVerdict);
  EXPECT_EQ(ORP_LCTRL_ALLOWED, check("10.0.0.3").ulVerdict);
  EXPECT_EQ(1u, round_of("10.0.0.2"));
  EXPECT_EQ(1u, round_of("0.0.0.0"));
  EXPECT_EQ(0u, round_of("10.0.0.3"));
  // A short record gets an answer that says so.
  EXPECT_EQ("", web_->ask({.type = ORP_LCTRL_MSG_LOGIN, .body = std::string(199, 'x')}).body);
}

TEST_F(Login, RemembersAcrossRestartsAndForgetsWhenTold) {
  set_limit({1, 500});
  for (const char *client : {"10.0.0.2", "10.0.0.3"}) EXPECT_EQ(1u, attempt(client).ulRound);
  restart();
  EXPECT_EQ(std::filesystem::perms{0600}, std::filesystem::status(kState).permissions());

  const auto kept = check("10.0.0.2");
  EXPECT_EQ(ORP_LCTRL_FORBIDDEN, kept.ulVerdict);
  EXPECT_GT(kept.ulForbiddenTime, 400u);
  EXPECT_EQ(1u, kept.ulTimesLeft);
  clear("10.0.0.2");
  EXPECT_EQ(0u, round_of("10.0.0.2"));
  EXPECT_EQ(1u, round_of("10.0.0.3"));
  clear("0.0.0.0");
  EXPECT_EQ(0u, round_of("0.0.0.0"));

  // The state is written soon after the change, so a server that is killed loses next to nothing.
  attempt("10.9.9.9");
  while (test::contents(kState).find("10.9.9.9") == std::string::npos) web_->drain();
  restart(SIGKILL);
  EXPECT_EQ(1u, round_of("10.9.9.9"));

  server_->stop(SIGKILL);
  std::ofstream(kState) << "{\"clients\": [{";
  restart();
  EXPECT_THAT(server_->output(), HasSubstr("is damaged"));
  EXPECT_EQ(0u, round_of("10.9.9.9"));
}

TEST_F(Login, KeepsItsStateWhereItIsTold) {
  const struct {
    std::string file;
    uint32_t round;  // known after a restart
    const char *complaint;
  } cases[] = {
      {"/var/other.json", 1, ""},
      {"", 0, ""},
      {"/var/none/login.json", 0, "login control cannot write /var/none/login.json: No such file"},
  };
  for (const auto &each : cases) {
    const std::vector<std::string> arguments = {"--login-state", each.file};
    restart(SIGTERM, arguments);
    set_limit({1, 500});
    EXPECT_EQ(1u, attempt("10.0.0.2").ulRound);
    EXPECT_EQ(0, server_->stop(SIGTERM));
    EXPECT_THAT(server_->output(), HasSubstr(each.complaint)) << each.file;

    server_.reset();
    restart(SIGTERM, arguments);
    EXPECT_EQ(each.round, round_of("10.0.0.2")) << each.file;
  }
  EXPECT_FALSE(std::filesystem::exists(kState));
}

TEST_F(Login, ManyInventedNamesDoNotPushOutWhoIsForbidden) {
  set_limit({2, 500});
  for (int i = 0; i < 2; ++i) attempt("10.0.0.2");
  for (int i = 0; i < 4200; ++i) attempt("10.0.0.3", ORP_LCTRL_FAILED, "n" + std::to_string(i));

  EXPECT_EQ(ORP_LCTRL_FORBIDDEN, check("10.0.0.2").ulVerdict);
  EXPECT_EQ(0u, check("10.0.0.3", "n0").ulFailedTimes) << "quiet the longest";
  EXPECT_EQ(1u, check("10.0.0.3", "n4199").ulFailedTimes);
}

TEST_F(Login, LeavesOneMoreTryWhenTheLimitIsLoweredMeanwhile) {
  for (int i = 0; i < 4; ++i) attempt("10.0.0.2");
  set_limit({3, 500});
  EXPECT_EQ(1u, check("10.0.0.2").ulTimesLeft);
  EXPECT_EQ(ORP_LCTRL_FORBIDDEN, attempt("10.0.0.2").ulVerdict);
}

TEST_F(Login, ReadsNotMoreThanItKeepsAndNothingThatIsOld) {
  server_->stop(SIGKILL);
  constexpr int kRecords = 4100;
  std::ofstream state(kState);
  state << R"({"max_failed_times": 5, "forbidden_time": 60, "clients": [)";
  for (int i = 0; i < kRecords; ++i) {
    state << R"({"account": "admin", "round": 1, "failed": 2, "client": "10.1.)" << i / 256 << '.'
          << i % 256 << R"(", "forbidden": )" << (i == 1 ? 500 : 0) << R"(, "quiet": )"
          << (i < 2 ? 86400 : 100) << '}' << (i + 1 < kRecords ? "," : "]}");
  }
  state.close();
  restart();

  EXPECT_EQ(0u, check("10.1.0.0").ulFailedTimes) << "it was quiet for a day";
  EXPECT_EQ(ORP_LCTRL_FORBIDDEN, check("10.1.0.1").ulVerdict) << "for longer than that";
  EXPECT_EQ(2u, check("10.1.15.255").ulFailedTimes);
  EXPECT_EQ(0u, check("10.1.16.0").ulFailedTimes) << "the 4097th";
}

TEST_F(Login, ForbidsForLongerWithEveryRound) {
  set_limit({1, 1});
  set_limit({0, 0});  // leaves both as they are

  EXPECT_EQ(1u, attempt("10.0.0.2").ulForbiddenTime);
  while (check("10.0.0.2").ulVerdict == ORP_LCTRL_FORBIDDEN) continue;
  const auto second = attempt("10.0.0.2");
  EXPECT_EQ(2u, second.ulRound);
  EXPECT_EQ(2u, second.ulForbiddenTime);
}

}  // namespace
