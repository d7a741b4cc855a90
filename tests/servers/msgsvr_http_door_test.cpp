// Which HTTP requests the message server accepts at all.

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "msgsvr/http_guard.h"
#include "servers/users.h"
#include "support/file.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// A status of 404 means that the request was accepted, but nobody serves it.
using HttpDoor = test::Users;

TEST_F(HttpDoor, IsClosedToPagesOfOtherSites) {
  start({"--http", "8080", "--http-host", "gateway.lan"});
  const std::pair<const char *, const char *> kAsked[] = {
      {"", "404"},
      {"-H 'Host: localhost'", "404"},
      {"-H 'Host: Gateway.LAN.:8080'", "404"},
      {"-H 'Host: [::1]:8080'", "404"},
      {"--http1.0 -H 'Host:'", "404"},
      {"-H 'Host: evil.example'", "421"},
      {"-H 'Host: [evil'", "421"},
      {"-H 'Host: [evil]:8080'", "421"},
      {"-H 'Host: gateway.lan.evil.example:8080'", "421"},
      {"-H 'Host: 127.0.0.1.evil.example'", "421"},
      {"-H 'Origin: http://127.0.0.1:8080'", "404"},
      {"-H 'Origin: https://127.0.0.1:8080'", "404"},
      {"-H 'Origin: http://127.0.0.1'", "403"},
      {"-H 'Origin: http://evil.example' -d x", "403"},
      {"-H 'Origin: null'", "403"},
      {"-H 'Host: evil.example' -H 'Origin: http://evil.example'", "421"},
      {"-H 'Sec-Fetch-Site: cross-site'", "403"},
      {"-H 'Sec-Fetch-Site: same-site'", "403"},
      {"-H 'Sec-Fetch-Site: same-origin'", "404"},
      {"-H 'Sec-Fetch-Site: none'", "404"},
  };
  for (const auto &[options, status] : kAsked) EXPECT_EQ(status, status_of(options)) << options;
  // The next request of the connection does not wait for a refused body.
  EXPECT_EQ("403404",
            status_of("-H 'Origin: null' --data-binary @$MSGAPI_BIN/msgsvr http://127.0.0.1:8080/y "
                      "--next -s -o /var/body -w '%{http_code}'"));
  EXPECT_EQ("404", status_of(""));
  EXPECT_THAT(log(), HasSubstr("refused by HTTP 12"));
  EXPECT_THAT(test::contents("/var/head"),
              AllOf(HasSubstr("Cross-Origin-Resource-Policy: same-origin"),
                    Not(HasSubstr("Access-Control-Allow"))));
}

TEST_F(HttpDoor, OpensWithTheToken) {
  const std::string path = "/var/token";
  std::ofstream(path) << "0123456789abcdef\n";
  std::filesystem::permissions(path, std::filesystem::perms(0640));
  start({"--http", "8080", "--http-token", path});
  EXPECT_EQ("401", status_of(""));
  EXPECT_THAT(test::contents("/var/head"), HasSubstr("WWW-Authenticate: Bearer"));
  EXPECT_EQ("404", status_of("-H 'Authorization: Bearer 0123456789abcdef'"));
  EXPECT_EQ("404", status_of("-H 'Authorization: bearer 0123456789abcdef'"));
  for (const char *wrong : {"Bearer 0123456789abcdeF", "Bearer 0123456789abcdef0", "Bearer ",
                            "Bearer", "Basic 0123456789abcdef"}) {
    EXPECT_EQ("401", status_of("-H 'Authorization: " + std::string(wrong) + "'")) << wrong;
  }

  server_->stop(SIGTERM);
  std::filesystem::permissions(path, std::filesystem::perms(0644));
  test::Process server("msgsvr", {"--http", "8080", "--http-token", path});
  EXPECT_EQ(1, server.wait());
  EXPECT_THAT(server.output(), HasSubstr("others may read the token"));
}

TEST(HttpToken, IsTheFirstLineOfLettersDigitsAndSomeSigns) {
  static constexpr const char *kFile = "/var/token";
  const auto read = [](const std::string &text) -> std::string {
    std::ofstream(kFile) << text;
    std::filesystem::permissions(kFile, std::filesystem::perms(0640));
    try {
      return msgsvr::read_token(kFile);
    } catch (const std::runtime_error &error) {
      return error.what();
    }
  };
  for (const std::string &token :
       {std::string("AZaz09-._~+/=1234"), std::string(16, 'x'), std::string(256, 'x')}) {
    EXPECT_EQ(token, read(token));
    EXPECT_EQ(token, read(token + "\r\nsecond line"));
  }
  // The neighbours of what is allowed.
  for (const char bad : {'@', '[', '`', '{', ':', ',', '!', ' ', '\t', '\0', '\xe4'}) {
    EXPECT_THAT(read(std::string(16, 'x') + bad), HasSubstr("is no token"));
  }
  for (const size_t size : {0, 15, 257, 1000}) {
    EXPECT_THAT(read(std::string(size, 'x')), HasSubstr("is no token"));
  }
  std::filesystem::remove(kFile);
  std::filesystem::create_directory(kFile);
  EXPECT_THAT(read(""), HasSubstr("is no regular file"));
  std::filesystem::remove(kFile);
  EXPECT_THROW(msgsvr::read_token(kFile), std::runtime_error);
}

}  // namespace
