// The example as dig and the system's resolver see it. A second relay plays the upstream server.

#include <gmock/gmock.h>
#include <sys/mount.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <string>

#include "support/process.h"

namespace {

using testing::HasSubstr;
using testing::Not;

std::string run(const std::string &command) {
  FILE *pipe = ::popen(command.c_str(), "r");
  std::string output;
  for (int c; (c = std::fgetc(pipe)) != EOF;) output += static_cast<char>(c);
  ::pclose(pipe);
  return output;
}

std::string dig(const std::string &arguments) {
  return run("dig @127.0.0.1 +tries=1 +time=5 " + arguments);
}

// The TTL of the first answer; -1 without one.
int answer_ttl(const std::string &name) {
  const std::string answer = run("dig @127.0.0.1 +tries=1 +time=5 +noall +answer " + name);
  int ttl = -1;
  std::sscanf(answer.c_str(), "%*s %d", &ttl);
  return ttl;
}

void write_file(const std::string &path, const std::string &text) {
  std::ofstream(path) << text;
}

class DnsRelay : public testing::Test {
 protected:
  DnsRelay() {
    write_file("/var/hosts",
               "192.0.2.10 box.lan box  # the gateway\n2001:db8::10 Six.lan\nnonsense x\n");
    write_file("/var/upstream",
               "192.0.2.80 www.example.com\n192.0.2.81 other.example.com\n2001:db8::80 "
               "www6.example.com\n");
  }
};

TEST_F(DnsRelay, AnswersFromTheHostsFile) {
  test::Process relay("dns_relay", {"--hosts", "/var/hosts", "--hosts-ttl", "33"});
  ASSERT_TRUE(relay.wait_for("listening"));

  const std::string answer = dig("BOX.lan");
  EXPECT_THAT(answer, HasSubstr("status: NOERROR"));
  EXPECT_THAT(answer, HasSubstr("QUERY: 1, ANSWER: 1, AUTHORITY: 0, ADDITIONAL: 0"));
  EXPECT_THAT(answer, Not(HasSubstr("WARNING: Message")));
  EXPECT_THAT(answer, HasSubstr("192.0.2.10"));
  EXPECT_EQ(33, answer_ttl("box"));
  EXPECT_THAT(dig("six.lan AAAA"), HasSubstr("2001:db8::10"));
  EXPECT_THAT(dig("-x 192.0.2.10"), HasSubstr("box.lan."));
  EXPECT_THAT(dig("-x 2001:db8::10"), HasSubstr("Six.lan."));
  // The name exists, but not in this address family.
  EXPECT_THAT(dig("box.lan AAAA"), HasSubstr("status: NOERROR"));
  EXPECT_THAT(dig("box.lan AAAA"), HasSubstr("ANSWER: 0"));

  write_file("/var/hosts", "192.0.2.11 box.lan\n");
  ::kill(relay.pid(), SIGHUP);
  // The signal may be served after the first query.
  std::string renewed;
  for (int i = 0; i < 50 && renewed.find("192.0.2.11") == std::string::npos; ++i) {
    renewed = dig("box.lan");
  }
  EXPECT_THAT(renewed, HasSubstr("192.0.2.11"));
  EXPECT_EQ(0, relay.stop(SIGTERM));
}

TEST_F(DnsRelay, RepliesWithErrors) {
  test::Process relay("dns_relay", {"--hosts", "/var/hosts"});
  ASSERT_TRUE(relay.wait_for("listening"));

  EXPECT_THAT(dig("unknown.lan"), HasSubstr("status: REFUSED"));
  EXPECT_THAT(dig("+opcode=notify box.lan"), HasSubstr("status: NOTIMP"));
  EXPECT_THAT(dig("+header-only box.lan"), HasSubstr("status: FORMERR"));

  test::Process lonely("dns_relay", {"--listen", "127.0.0.1#5300", "--upstream", "127.0.0.1#5301",
                                     "--upstream", "127.0.0.1#5302", "--timeout", "20"});
  ASSERT_TRUE(lonely.wait_for("listening"));
  EXPECT_THAT(dig("-p 5300 www.example.com"), HasSubstr("status: SERVFAIL"));
}

TEST_F(DnsRelay, PassesQueriesOnAndAgesWhatItRemembers) {
  test::Process upstream("dns_relay", {"--listen", "127.0.0.1#5300", "--hosts", "/var/upstream",
                                       "--hosts-ttl", "300"});
  ASSERT_TRUE(upstream.wait_for("listening"));
  test::Process relay("dns_relay", {"--hosts", "/var/hosts", "--upstream", "127.0.0.1#5309",
                                    "--upstream", "127.0.0.1#5300", "--timeout", "100"});
  ASSERT_TRUE(relay.wait_for("listening"));

  // The first server does not exist; the second is asked after the time-out.
  EXPECT_EQ(300, answer_ttl("www.example.com"));
  EXPECT_THAT(dig("www6.example.com AAAA"), HasSubstr("2001:db8::80"));
  EXPECT_THAT(dig("nobody.example.com"), HasSubstr("status: REFUSED"));
  EXPECT_EQ(0, upstream.stop(SIGTERM));

  EXPECT_THAT(dig("WWW.example.com"), HasSubstr("192.0.2.80"));
  EXPECT_THAT(dig("other.example.com"), HasSubstr("status: SERVFAIL"));
  const auto start = std::chrono::steady_clock::now();
  int ttl = 300;
  while (ttl == 300 && std::chrono::steady_clock::now() - start < std::chrono::seconds(10)) {
    ttl = answer_ttl("www.example.com");
  }
  EXPECT_LT(ttl, 300);
  EXPECT_GT(ttl, 280);
}

TEST_F(DnsRelay, ServesTheSystemsResolver) {
  write_file("/var/resolv.conf", "nameserver 127.0.0.1\n");
  ASSERT_EQ(0, ::mount("/var/resolv.conf", "/etc/resolv.conf", nullptr, MS_BIND, nullptr));
  test::Process relay("dns_relay", {"--hosts", "/var/hosts"});
  ASSERT_TRUE(relay.wait_for("listening"));

  // Asks for an IPv6 address first.
  EXPECT_THAT(run("getent hosts box.lan"), HasSubstr("192.0.2.10"));
  EXPECT_THAT(run("getent hosts six.lan"), HasSubstr("2001:db8::10"));
  EXPECT_THAT(run("getent hosts 192.0.2.10"), HasSubstr("box.lan"));
  EXPECT_EQ("", run("getent hosts unknown.lan"));
}

}  // namespace
