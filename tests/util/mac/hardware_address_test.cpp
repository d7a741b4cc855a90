#include <gmock/gmock.h>

#include "msgapi/mac.h"
#include "support/fd_check.h"
#include "support/network.h"

namespace {

using testing::ElementsAre;

TEST(HardwareAddress, IsReadFromAnEthernetInterface) {
  test::run("ip link add br0 address 02:ab:cd:ef:00:0a type bridge");
  const test::FdCheck descriptors;
  uint8_t mac[ORP_MAC_SIZE] = {};
  uint8_t sized[ORP_MAC_SIZE + 1] = {};
  char text[ORP_MAC_TEXT_SIZE] = "untouched";

  EXPECT_EQ(0u, ORP_UTIL_GetBytesMacAddress("br0", mac));
  EXPECT_EQ(0u, ORP_UTIL_GetMacAddressByInterfaceName("br0", sized, sizeof sized));
  ORP_UTIL_GetWanMacAddr("br0", text, sizeof text);

  EXPECT_THAT(mac, ElementsAre(0x02, 0xab, 0xcd, 0xef, 0x00, 0x0a));
  EXPECT_THAT(sized, ElementsAre(0x02, 0xab, 0xcd, 0xef, 0x00, 0x0a, 0));
  EXPECT_STREQ("02:AB:CD:EF:00:0A", text);

  EXPECT_EQ(1u, ORP_UTIL_GetMacAddressByInterfaceName("br0", mac, ORP_MAC_SIZE - 1));
  ORP_UTIL_GetWanMacAddr("br0", text, sizeof text - 1);
  EXPECT_STREQ("", text) << "no room";
}

TEST(HardwareAddress, IsRefusedForWhatIsNoEthernetInterface) {
  test::run("ip link add a-name-of-15-ch type bridge");
  const test::FdCheck descriptors;

  for (const char *name : {"lo", "nosuch0", "", "a-name-of-15-chX"}) {
    uint8_t mac[ORP_MAC_SIZE] = {1, 2, 3, 4, 5, 6};
    char text[ORP_MAC_TEXT_SIZE] = "stale";

    EXPECT_EQ(1u, ORP_UTIL_GetBytesMacAddress(name, mac)) << name;
    ORP_UTIL_GetWanMacAddr(name, text, sizeof text);

    EXPECT_THAT(mac, ElementsAre(1, 2, 3, 4, 5, 6)) << name;
    EXPECT_STREQ("", text) << name;
  }
}

}  // namespace
