#include "msgapi/bridge.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "support/fd_check.h"
#include "support/file.h"
#include "support/network.h"
#include "util/net/bridge_listing.h"

namespace {

using testing::ElementsAre;

constexpr const char *kTablet = "02:00:00:ab:cd:01";
constexpr const char *kPrinter = "02:00:00:ab:cd:02";

// Checks that a query closes what it opens and removes its result files.
class Bridge : public testing::Test {
 protected:
  ~Bridge() override {
    for (const auto &entry : std::filesystem::directory_iterator("/var")) {
      EXPECT_THAT(entry.path().filename(), testing::Not(testing::StartsWith("brctl")));
    }
  }

  // br0 with the ports lan1 and lan2, br1 with lan3; pc1 to pc3 are their far ends.
  void add_two_bridges() {
    test::add_bridge("br0");
    test::add_bridge("br1");
    test::add_bridge_port("br0", "lan1", "pc1");
    test::add_bridge_port("br0", "lan2", "pc2");
    test::add_bridge_port("br1", "lan3", "pc3");
  }

  test::FdCheck descriptors_;
};

// Lets "brctl show" print `text`, and "brctl showmacs" the second text.
void script_brctl(const std::string &show, const std::string &macs = "") {
  std::ofstream("/var/show.txt") << show;
  std::ofstream("/var/macs.txt") << macs;
  test::replace_program("brctl",
                        "echo \"$@\" >> /var/commands\n"
                        "[ $1 = show ] && cat /var/show.txt || cat /var/macs.txt");
}

std::vector<std::string> interfaces_on(const char *bridge, uint32_t max_count,
                                       uint32_t expected = 0) {
  std::vector<char> room((max_count + 1) * ORP_IF_NAME_SIZE, 'z');
  auto *names = reinterpret_cast<char(*)[ORP_IF_NAME_SIZE]>(room.data());
  EXPECT_EQ(expected, ORP_UTIL_GetAllInterfaceOnBr(bridge, max_count, names));
  EXPECT_EQ('z', names[max_count][0]) << "written behind the end";

  std::vector<std::string> result;
  for (uint32_t i = 0; expected == 0 && i < max_count && names[i][0] != '\0'; ++i) {
    result.emplace_back(names[i]);
  }
  return result;
}

TEST_F(Bridge, NamesAreListedInTheOrderOfTheTool) {
  char out[64] = "stale";
  EXPECT_EQ(0u, ORP_UTIL_GetBridgeAllNames(out, sizeof out)) << "none yet";

  add_two_bridges();
  test::add_bridge("guest");
  test::add_bridge("lanbr2");

  EXPECT_EQ(3u, ORP_UTIL_GetBridgeAllNames(out, sizeof out));
  EXPECT_STREQ("br0,br1,lanbr2", out) << "a bridge without interfaces is one too";
  EXPECT_EQ(3u, ORP_UTIL_GetBridgeAllNames(out, 14));
  EXPECT_STREQ("br0,br1", out) << "what does not fit is left out whole";
  EXPECT_EQ(3u, ORP_UTIL_GetBridgeAllNames(out, 0));
}

TEST_F(Bridge, NamesAreTakenFromBridgeLinesOnly) {
  script_brctl(
      "br0:9 8000.001122334455 no eth0\n"
      "br1 8000.001122334455 maybe eth0\n"
      "bridge 8000.001122334455 no eth0\n"
      "xbrbr2 8000.001122334455 no eth0\n"
      "br3 8000.001122334455\n"
      "br4 8000.001122334455 yes\n"
      "br5 8000.001122334455 no eth0 eth1\n"
      "\t\t\t\tbr6\n");
  char out[64];
  EXPECT_EQ(2u, ORP_UTIL_GetBridgeAllNames(out, sizeof out));
  EXPECT_STREQ("br4,br5", out);
}

TEST_F(Bridge, OfAnInterfaceIsFoundOnAllLinesOfTheBridge) {
  add_two_bridges();
  char out[16] = "untouched";

  EXPECT_EQ(1u, ORP_UTIL_GetBrByLanInterface("LAN1", out, sizeof out, nullptr));
  EXPECT_STREQ("untouched", out);
  EXPECT_EQ(0u, ORP_UTIL_GetBrByLanInterface("lan3", out, sizeof out, nullptr));
  EXPECT_STREQ("br1", out);
  EXPECT_EQ(0u, ORP_UTIL_GetBrByLanInterface("lan2", out, 4, nullptr)) << "a continuation line";
  EXPECT_STREQ("br0", out);
  EXPECT_EQ(1u, ORP_UTIL_GetBrByLanInterface("lan2", out, 3, nullptr));
}

TEST_F(Bridge, OfAnInterfaceIsReadFromTheCallersFile) {
  std::ofstream("/tmp/listing") << "\t\torphan\n"
                                   "guest\t8000.001122334455\tno\teth0\n"
                                   "\t\t\teth1\n"
                                   "br0:9\t8000.001122334455\tno\teth2\n"
                                   "br1\t8000.001122334455\tmaybe\teth3\n"
                                   "br2\t8000.001122334455\tyes\n"
                                   "\t\t\teth4\n"
                                   "two words\n";
  const std::pair<const char *, const char *> kCases[] = {
      {"eth0", "guest"},                     // any name will do here
      {"eth1", "guest"},  {"eth2", "none"},  // an alias is no bridge
      {"eth3", "none"},                      // no STP flag
      {"eth4", "guest"},                     // a bridge without interface is not remembered
      {"orphan", "none"}, {"words", "none"},
  };
  for (const auto &[name, bridge] : kCases) {
    char out[16] = "none";
    ORP_UTIL_GetBrByLanInterface(name, out, sizeof out, "/tmp/listing");
    EXPECT_STREQ(bridge, out) << name;
  }
  EXPECT_TRUE(std::filesystem::remove("/tmp/listing")) << "left in place";
}

TEST_F(Bridge, InterfacesAreListedUntilTheRoomOrTheBridgeEnds) {
  add_two_bridges();
  test::add_bridge("br2");

  EXPECT_THAT(interfaces_on("br0", 8), ElementsAre("lan1", "lan2"));
  EXPECT_THAT(interfaces_on("br0", 1), ElementsAre("lan1"));
  interfaces_on("br0", 0, 1);
  interfaces_on("br2", 8, 1);
  interfaces_on("br3", 8, 1);
}

TEST_F(Bridge, InterfacesAreNotAskedForUnderNamesThatAreNoBridges) {
  script_brctl("br0;id 8000.0 no eth0\nbr1234567 8000.0 no eth0\n");
  for (const char *name : {"eth0", "br", "br0:1", "br0;id", "br0 ", "br0/../x", "-br0", "br0$(id)",
                           "", "br0\n", "br123456"}) {
    interfaces_on(name, 4, 1);
  }
  EXPECT_FALSE(std::filesystem::exists("/var/commands"));

  interfaces_on("br12345", 4, 1);
  EXPECT_EQ("show\n", test::contents("/var/commands")) << "the longest name";
}

TEST_F(Bridge, InterfacesEndAtANameThatBeginsLikeABridge) {
  script_brctl("br0 8000.0 no eth0\n\n\teth1\n\tbrlan\n\teth2\n");
  EXPECT_THAT(interfaces_on("br0", 8), ElementsAre("eth0", "eth1"));

  script_brctl("br0 8000.0 no eth0\n\ta-name-of-16-chr\n");
  interfaces_on("br0", 8, 1);
}

TEST_F(Bridge, LearntAddressIsFoundOnItsPort) {
  add_two_bridges();
  test::teach_bridge("br0", "pc2", kTablet);
  test::teach_bridge("br1", "pc3", kPrinter);
  char out[16] = "untouched";
  ORP_UTIL_BR_FDB_ST record{};

  EXPECT_EQ(1u, ORP_UTIL_GetInterfaceNameByMacAddr("02:00:00:ab:cd:ff", out, sizeof out));
  EXPECT_STREQ("untouched", out);
  EXPECT_EQ(0u, ORP_UTIL_GetInterfaceNameByMacAddr("02:00:00:AB:cd:01", out, sizeof out));
  EXPECT_STREQ("lan2", out);
  EXPECT_EQ(1u, ORP_UTIL_GetInterfaceNameByMacAddr(kTablet, out, 4));

  EXPECT_EQ(0u, ORP_UTIL_GetBrFdbInfoByMac(kTablet, &record));
  EXPECT_EQ(2, record.ucPort);
  EXPECT_STREQ(kTablet, record.aucMac);
  EXPECT_STREQ("lan2", record.aucIfName);
  EXPECT_STREQ("no", record.aucLocal);

  EXPECT_EQ(1u, ORP_UTIL_GetBrFdbInfoByMacSpecBr(kPrinter, &record, "br0")) << "on the other one";
  EXPECT_STREQ("lan2", record.aucIfName);
  EXPECT_EQ(0u, ORP_UTIL_GetBrFdbInfoByMacSpecBr(kPrinter, &record, "br1"));
  EXPECT_STREQ("lan3", record.aucIfName);

  const std::string own = test::contents("/sys/class/net/lan1/address");
  EXPECT_EQ(0u, ORP_UTIL_GetBrFdbInfoByMac(own.substr(0, 17).c_str(), &record));
  EXPECT_STREQ("yes", record.aucLocal) << "the port's own";
}

TEST_F(Bridge, LearntAddressIsNoFailureWithoutABridgeToAsk) {
  char out[16] = "untouched";
  ORP_UTIL_BR_FDB_ST record = {77, "untouched", "", ""};
  EXPECT_EQ(0u, ORP_UTIL_GetInterfaceNameByMacAddr(kTablet, out, sizeof out));
  test::add_bridge("br0");
  EXPECT_EQ(0u, ORP_UTIL_GetInterfaceNameByMacAddr(kTablet, out, sizeof out)) << "no interface";
  EXPECT_EQ(0u, ORP_UTIL_GetBrFdbInfoByMac(kTablet, &record));
  test::add_bridge_port("br0", "lan1", "pc1");
  EXPECT_EQ(0u, ORP_UTIL_GetBrFdbInfoByMacSpecBr(kTablet, &record, "br7")) << "another bridge";

  EXPECT_STREQ("untouched", out);
  EXPECT_STREQ("untouched", record.aucMac);
}

TEST_F(Bridge, LearntAddressIsTakenFromTheFirstWholeLineAndReportsTextsThatDoNotFit) {
  const std::string long_mac(20, 'a');
  script_brctl("br0 8000.0 no eth0\n",
               "1 02:00:00:00:00:01 no 1.0\n"
               "x 02:00:00:00:00:01 no 1.0 eth8\n"
               "300 02:00:00:00:00:01 definitely 1.0 eth1\n"
               "1 02:00:00:00:00:01 no 1.0 eth9\n"
               "3 " +
                   long_mac + " no 1.0 a-name-of-16-chr\n");
  ORP_UTIL_BR_FDB_ST record{};

  EXPECT_EQ(ORP_ERR_BRIDGE_TEXT, ORP_UTIL_GetBrFdbInfoByMac("02:00:00:00:00:01", &record));
  EXPECT_EQ(300 % 256, record.ucPort);
  EXPECT_STREQ("02:00:00:00:00:01", record.aucMac);
  EXPECT_STREQ("eth1", record.aucIfName);
  EXPECT_STREQ("", record.aucLocal);

  EXPECT_EQ(ORP_ERR_BRIDGE_TEXT, ORP_UTIL_GetBrFdbInfoByMac(long_mac.c_str(), &record));
  EXPECT_STREQ("", record.aucMac);
  EXPECT_STREQ("", record.aucIfName);
  EXPECT_STREQ("no", record.aucLocal);
}

TEST_F(Bridge, LearntAddressIsAskedForOnBridgesWithSafeNamesOnly) {
  script_brctl("br0;id 8000.0 no eth0\nbr0$(id) 8000.0 no eth0\n-br0 8000.0 no eth0\n");
  char out[16] = "untouched";
  EXPECT_EQ(0u, ORP_UTIL_GetInterfaceNameByMacAddr(kTablet, out, sizeof out));
  EXPECT_STREQ("untouched", out);
  EXPECT_EQ("show\n", test::contents("/var/commands"));
}

TEST_F(Bridge, ResultFilesAreNeverReadStale) {
  const std::string stale_entry = std::string("1 ") + kTablet + " no 1.0 stale\n";
  char out[16] = "untouched";
  add_two_bridges();
  std::ofstream("/var/brctlshowmacs.rst") << stale_entry;
  EXPECT_EQ(1u, ORP_UTIL_GetInterfaceNameByMacAddr(kTablet, out, sizeof out));

  ::setenv("PATH", "/nonexistent", 1);
  std::ofstream("/var/brctlshow.rst") << "br9 8000.0 no stale\n";
  std::ofstream("/var/brctlshowmacs.rst") << stale_entry;
  std::ofstream("/var/brctlshowintfnames_br9") << "br9 8000.0 no stale\n";
  EXPECT_EQ(0u, ORP_UTIL_GetInterfaceNameByMacAddr(kTablet, out, sizeof out));
  EXPECT_EQ(1u, ORP_UTIL_GetBrByLanInterface("stale", out, sizeof out, nullptr));
  interfaces_on("br9", 4, 1);
  EXPECT_STREQ("untouched", out);
}

TEST_F(Bridge, ResultFilesAreNotReachedThroughLinks) {
  add_two_bridges();
  test::teach_bridge("br0", "pc1", kTablet);
  std::ofstream("/var/victim") << "precious";
  char out[16];

  for (const char *file : {"show.rst", "showmacs.rst", "showintfnames_br0"}) {
    std::filesystem::create_symlink("/var/victim", std::string("/var/brctl") + file);
  }
  EXPECT_EQ(0u, ORP_UTIL_GetInterfaceNameByMacAddr(kTablet, out, sizeof out));
  EXPECT_STREQ("lan1", out);
  EXPECT_THAT(interfaces_on("br0", 4), ElementsAre("lan1", "lan2"));
  EXPECT_EQ("precious", test::contents("/var/victim"));
}

}  // namespace
