// The hardware addresses of the machine's own interfaces.

#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <optional>

#include "base/copy_failure.h"
#include "os/fd.h"
#include "util/mac/mac_text.h"

namespace msgapi::mac {
namespace {

using MacBytes = std::array<uint8_t, ORP_MAC_SIZE>;

std::optional<MacBytes> hardware_address(const char *name) {
  ifreq request{};
  if (name[0] == '\0' || !copy_or_report(request.ifr_name, name)) return std::nullopt;

  const os::UniqueFd fd(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd || ::ioctl(fd.get(), SIOCGIFHWADDR, &request) != 0) return std::nullopt;
  if (request.ifr_hwaddr.sa_family != ARPHRD_ETHER) return std::nullopt;

  MacBytes mac;
  std::memcpy(mac.data(), request.ifr_hwaddr.sa_data, mac.size());
  return mac;
}

}  // namespace
}  // namespace msgapi::mac

using namespace msgapi;
using namespace msgapi::mac;

extern "C" uint32_t ORP_UTIL_GetBytesMacAddress(const char *ifName, uint8_t mac[ORP_MAC_SIZE]) {
  return ORP_UTIL_GetMacAddressByInterfaceName(ifName, mac, ORP_MAC_SIZE);
}

extern "C" uint32_t ORP_UTIL_GetMacAddressByInterfaceName(const char *ifName, uint8_t *mac,
                                                          uint32_t size) {
  if (ifName == nullptr || mac == nullptr || size < ORP_MAC_SIZE) return 1;

  const std::optional<MacBytes> found = hardware_address(ifName);
  if (!found) return 1;
  std::memcpy(mac, found->data(), found->size());
  return 0;
}

extern "C" void ORP_UTIL_GetWanMacAddr(const char *ifName, char *out, uint32_t size) {
  if (out == nullptr || size == 0) return;
  out[0] = '\0';
  if (ifName == nullptr || size < ORP_MAC_TEXT_SIZE) return;

  const std::optional<MacBytes> found = hardware_address(ifName);
  if (found) {
    format_mac(*found, HexCase::kUpper, std::span<char, ORP_MAC_TEXT_SIZE>(out, ORP_MAC_TEXT_SIZE));
  }
}
