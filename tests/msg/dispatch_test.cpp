#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/drop_count.h"
#include "msg/header.h"
#include "support/message_peer.h"

namespace msgapi::msg {
namespace {

using test::Connection;

std::string g_calls;

template <char kName>
void record(Header * /*message*/) {
  g_calls += kName;
}

// A message as it reaches the gate.
test::MessageBlock arrived(uint32_t type, const std::string &from = "peer",
                           const std::string &to = "self") {
  return test::make_block({.type = type, .to = to, .sequence = 7, .from = from});
}

ORP_MSG_REG_HANDLE add(uint32_t type, ORP_MSG_PROC procedure, uint32_t priority) {
  ORP_MSG_REG_HANDLE handle;
  EXPECT_EQ(ORP_OK, ORP_MSG_RegMsgProc(type, procedure, priority, &handle));
  return handle;
}

// The procedures that a message of that type calls.
std::string calls_for(uint32_t type) {
  g_calls.clear();
  ORP_MSG_DefaultMsgProc(arrived(type).get());
  return g_calls;
}

TEST(Gate, CallsTheProcedureAlsoWithNull) {
  const test::MessageBlock message = arrived(1);
  static std::vector<Header *> seen;
  ORP_MSG_FilterProc(message.get());
  ORP_MSG_RegisterMsgProc([](Header *each) { seen.push_back(each); });

  ORP_MSG_FilterProc(message.get());
  ORP_MSG_FilterProc(nullptr);
  EXPECT_EQ((std::vector<Header *>{message.get(), nullptr}), seen);
}

TEST(Gate, DropsAndCountsWhatMayNotPass) {
  ORP_MSG_RegisterMsgProc(record<'x'>);
  const test::MessageBlock large = arrived(1);  // nobody looks at the body

  testing::internal::CaptureStdout();
  ORP_MSG_FilterProc(arrived(0x1234, "unterminated").get());
  ORP_MSG_FilterProc(arrived(0x1234, "peer", "unterminated").get());
  large->ulDataLen = 0x200001;
  ORP_MSG_FilterProc(large.get());
  EXPECT_EQ("msgapi recv/send app error type=0x1234\nmsgapi recv/send app error type=0x1234\n",
            testing::internal::GetCapturedStdout());
  EXPECT_EQ("", g_calls);
  EXPECT_EQ(2u, g_dropped.name);
  EXPECT_EQ(1u, g_dropped.oversize);

  large->ulDataLen = 0x200000;
  ORP_MSG_FilterProc(large.get());
  EXPECT_EQ("x", g_calls);
}

TEST(Registry, CallsByPriorityAndThenInOrderOfRegistration) {
  add(0x1234, record<'a'>, 5);
  add(0x9999, record<'z'>, 0);
  add(0x1234, record<'b'>, 3);
  add(0x1234, record<'c'>, 3);
  add(0x1234, record<'d'>, 9);
  add(0x1234, record<'e'>, 5);

  EXPECT_EQ("bcaed", calls_for(0x1234));
  EXPECT_EQ("z", calls_for(0x9999));
  EXPECT_EQ("", calls_for(0x101234)) << "the whole type is compared";
  ORP_MSG_DefaultMsgProcs(nullptr);

  ORP_MSG_REG_HANDLE handle = reinterpret_cast<ORP_MSG_REG_HANDLE>(1);
  fail_allocation(1);
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_MSG_RegMsgProc(1, record<'a'>, 0, &handle));
  EXPECT_EQ(nullptr, handle);
}

TEST(Registry, MayBeChangedWhileItIsWalked) {
  static ORP_MSG_REG_HANDLE own;
  static ORP_MSG_REG_HANDLE next;
  static bool nested;
  own = add(
      1,
      [](Header *message) {
        record<'a'>(message);
        // Inside an inner walk, so that the outer walk must notice it, too.
        if (!nested) {
          nested = true;
          ORP_MSG_DefaultMsgProcs(message);
          return;
        }
        ORP_MSG_UnRegisterMsgProc(own);
        ORP_MSG_UnRegisterMsgProc(next);
        add(1, record<'d'>, 9);
      },
      0);
  next = add(1, record<'b'>, 1);
  add(1, record<'c'>, 2);

  EXPECT_EQ("aacdcd", calls_for(1));
  EXPECT_EQ("cd", calls_for(1));
}

TEST(Registry, SendsTheReplyOfASyncProcedure) {
  Connection connection("self");
  const auto answer = [](Header *message) -> Header * {
    Header *reply = ORP_MSG_MsgRespBuilder(message, 55, "answer", 6);
    // Replaced by the type and the sender of the request.
    reply->ulMsgType = 0x99;
    std::strcpy(reply->aucRecvApp, "elsewhere");
    return reply;
  };
  ORP_MSG_RegMsgProcEx(0x1234, record<'a'>, answer, 0, nullptr);
  ORP_MSG_RegisterSyncMsgProc(
      0x1234, [](Header *) -> Header * { return nullptr; }, 1, nullptr);

  EXPECT_EQ("a", calls_for(0x1234));
  EXPECT_EQ((test::Frame{0x1234, "peer", "answer", 55, 7, "self"}), connection.peer.read());
  EXPECT_TRUE(connection.peer.quiet());
}

// Ends the process with status 3 unless the exit request already does.
void receive_exit(const std::string &name) {
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
  ORP_MSG_DefaultMsgProc(arrived(ORP_MSG_EXIT, "asker", name).get());
  ::_exit(3);
}

TEST(ExitRequest, EndsTheListedDaemonsWithAnAcknowledgement) {
  for (const std::string name :
       {"dhcps", "ssdpd", "ntwksync", "kobridge", "devmngr", "coapclient", "datacli"}) {
    Connection connection(name);
    EXPECT_EXIT(receive_exit(name), testing::ExitedWithCode(0),
                "^Fatal: App\\(" + name + ":[0-9]+\\) exited.=================================\n$");
    connection.peer.expect({.type = ORP_MSG_EXIT, .to = "asker"});
  }
  EXPECT_EXIT(receive_exit("dhcp"), testing::ExitedWithCode(3), "^$");
  EXPECT_EXIT(receive_exit("dhcpsd"), testing::ExitedWithCode(3), "^$");
  add(ORP_MSG_EXIT, record<'x'>, 0);
  EXPECT_EXIT(receive_exit("dhcps"), testing::ExitedWithCode(3), "^$") << "a procedure took it";
}

}  // namespace
}  // namespace msgapi::msg
