// The example, asked by dig. A second relay plays the upstream server.

#include <gmock/gmock.h>
#include <signal.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "support/process.h"

namespace {

using test::shell;
using testing::HasSubstr;
using testing::Not;

std::string dig(const std::string &arguments) {
  return shell("dig @127.0.0.1 +tries=1 +time=5 " + arguments).text;
}

// The TTL of the first answer; -1 without one.
int answer_ttl(const std::string &name) {
  int ttl = -1;
  std::sscanf(dig("+noall +answer " + name).c_str(), "%*s %d", &ttl);
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
  EXPECT_THAT(answer, Not(HasSubstr("WARNING")));
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
  EXPECT_TRUE(
      test::eventually([] { return dig("box.lan").find("192.0.2.11") != std::string::npos; }));
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
  EXPECT_TRUE(test::eventually([] { return answer_ttl("www.example.com") < 300; }));
  EXPECT_GT(answer_ttl("www.example.com"), 200);
}

// A server for "test." on port 5300. The first label of a name says what it answers. It writes its
// queries down.
constexpr const char *kUpstream = R"(
import socket, struct, threading
asked = open('/var/asked', 'w', buffering=1)
def answer(query, tcp):
    end = 12
    while query[end]: end += query[end] + 1
    question = query[12:end + 5]
    kind = query[13:13 + query[12]].split(b'-')[0].lower()
    print(query[12:end], 'over', 'TCP' if tcp else 'UDP', file=asked)
    zone = 12 + 1 + query[12]
    # MNAME and RNAME are compressed, too.
    soa = struct.pack('!HHHIH', 0xc000 | zone, 6, 1, 40, 24) + struct.pack(
        '!HHIIIII', 0xc000 | zone, 0xc000 | zone, 1, 2, 3, 4, 30)
    code, answers, authority = 0x8180, [], []
    if kind == b'nx': code, authority = 0x8183, [soa]
    elif kind == b'nodata': authority = [soa]
    elif kind == b'bare': code = 0x8183
    elif kind == b'fail': code, authority = 0x8182, [soa]
    elif not tcp: code = 0x8380
    else: answers = [struct.pack('!HHHIH', 0xc00c, 16, 1, 50, 201) + b'\xc8' + b'x' * 200] * 20
    return query[:2] + struct.pack('!HHHHH', code, 1, len(answers), len(authority), 0) + question + b''.join(answers + authority)
udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
udp.bind(('127.0.0.1', 5300))
listener = socket.create_server(('127.0.0.1', 5300))
def serve_tcp():
    while True:
        c, _ = listener.accept()
        size = struct.unpack('!H', c.recv(2, socket.MSG_WAITALL))[0]
        reply = answer(c.recv(size, socket.MSG_WAITALL), True)
        c.sendall(struct.pack('!H', len(reply)) + reply)
        c.close()
threading.Thread(target=serve_tcp, daemon=True).start()
print('serving', flush=True)
while True:
    query, who = udp.recvfrom(4096)
    udp.sendto(answer(query, False), who)
)";

class DnsRelayBehindAServer : public DnsRelay {
 protected:
  DnsRelayBehindAServer() {
    EXPECT_TRUE(upstream_.wait_for("serving"));
    EXPECT_TRUE(relay_.wait_for("listening"));
  }

  static int times_asked(const std::string &what) {
    return std::stoi(shell("grep -c '" + what + "' /var/asked").text);
  }

  test::Process upstream_{"/usr/bin/env", {"python3", "-c", kUpstream}};
  test::Process relay_{"dns_relay", {"--hosts", "/var/hosts", "--upstream", "127.0.0.1#5300"}};
};

TEST_F(DnsRelayBehindAServer, RemembersWhatThereIsNot) {
  EXPECT_THAT(dig("nx-1.test"), HasSubstr("status: NXDOMAIN"));
  EXPECT_THAT(dig("nodata-1.test"), HasSubstr("status: NOERROR"));
  const std::string no_name = dig("NX-1.Test AAAA");
  EXPECT_THAT(no_name, HasSubstr("status: NXDOMAIN"));
  EXPECT_THAT(no_name, HasSubstr("NX-1.Test."));
  EXPECT_THAT(no_name, Not(HasSubstr("WARNING"))) << "recursion is available";
  EXPECT_EQ(1, times_asked("nx-1")) << "no such name holds for every type";
  const std::string no_record = dig("nodata-1.test");
  EXPECT_THAT(no_record, HasSubstr("status: NOERROR"));
  EXPECT_EQ(1, times_asked("nodata-1"));
  dig("nodata-1.test AAAA");
  EXPECT_EQ(2, times_asked("nodata-1")) << "another type of record may be there";

  // The SOA record comes along. Its TTL is not above its MINIMUM (RFC 2308, 5), and has aged.
  for (const std::string &answer : {no_name, no_record}) {
    EXPECT_THAT(answer, HasSubstr("ANSWER: 0, AUTHORITY: 1, ADDITIONAL: 0"));
    EXPECT_THAT(answer,
                testing::ContainsRegex("est\\.\t+(30|2[0-9])\tIN\tSOA\t[Tt]est\\. [Tt]est\\. 1"));
  }

  // Answers without that record are not kept, nor are failures.
  for (const char *name : {"bare.test", "fail.test"}) dig(name), dig(name);
  EXPECT_EQ(2, times_asked("bare"));
  EXPECT_EQ(2, times_asked("fail"));
}

TEST_F(DnsRelayBehindAServer, AnswersOverTcp) {
  EXPECT_THAT(dig("+tcp box.lan"), HasSubstr("192.0.2.10"));
  EXPECT_THAT(dig("+tcp nx-2.test"), HasSubstr("status: NXDOMAIN"));
  EXPECT_THAT(dig("+ignore long-1.test TXT"), HasSubstr("flags: qr tc rd ra"));
  // The relay asks over TCP only when the client has room for the long answer; dig repeats a
  // truncated query over TCP by itself.
  EXPECT_EQ(0, times_asked("over TCP"));
  const std::string whole = dig("long-2.test TXT");
  EXPECT_THAT(whole, HasSubstr("ANSWER: 20,"));
  EXPECT_THAT(whole, HasSubstr("SERVER: 127.0.0.1#53(127.0.0.1) (TCP)"));
  EXPECT_EQ(1, times_asked("over TCP"));

  // Several queries on one connection, in pieces, and a client that only connects.
  EXPECT_EQ("b'192.0.2.10' 2 True", shell(R"(python3 - <<'END'
import socket, struct, time
idle = [socket.create_connection(('127.0.0.1', 53)) for i in range(100)]
for c in idle: c.close()
while True:  # the closed ones have to be noticed first
    s = socket.create_connection(('127.0.0.1', 53))
    query = struct.pack('!HHHHHH', 7, 0x100, 1, 0, 0, 0) + b'\3box\3lan\0\0\1\0\1'
    framed = struct.pack('!H', len(query)) + query
    try:
        for byte in framed + framed[:9]: s.send(bytes([byte])); time.sleep(0.001)
        s.sendall(framed[9:])
        got = b''
        while len(got) < 2 * (len(framed) + 16):
            more = s.recv(4096)
            if not more: raise OSError
            got += more
        break
    except OSError: pass
print(str(b'.'.join(b'%d' % c for c in got[-4:])), got.count(b'\3box'), got[:2] == struct.pack('!H', len(query) + 16), end='')
END)")
                                        .text);
}

}  // namespace
