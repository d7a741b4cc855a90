#include "msgbridge/identity.h"

#include <fmt/format.h>
#include <sodium.h>

#include <array>
#include <fstream>
#include <stdexcept>

#include "cfmapi.h"

namespace msgbridge {
namespace {

std::string item_text(uint32_t item) {
  std::array<char, 256> text{};
  const uint32_t status = ORP_APPDATA_ReadEquip(item, text.data(), text.size() - 1);
  if (status != CFM_OK || text[0] == '\0') {
    throw std::runtime_error(
        fmt::format("item 0x{:x} of equipment data, the gateway's name, cannot be read (status "
                    "0x{:x}), or is empty",
                    item, status));
  }
  return text.data();
}

// machine-id(5) asks programs to publish only a keyed hash of the id.
std::string machine_text() {
  constexpr std::string_view kKey = "msgbridge gateway name";
  std::string machine;
  std::ifstream("/etc/machine-id") >> machine;
  std::array<unsigned char, 16> hash{};
  if (machine.empty() || sodium_init() < 0 ||
      crypto_generichash(hash.data(), hash.size(),
                         reinterpret_cast<const unsigned char *>(machine.data()), machine.size(),
                         reinterpret_cast<const unsigned char *>(kKey.data()), kKey.size()) != 0) {
    throw std::runtime_error(
        "this gateway has no name: there is no /etc/machine-id, and the configuration has no "
        "'gateway'");
  }
  std::string name;
  for (const unsigned char byte : hash) name += fmt::format("{:02x}", byte);
  return name;
}

}  // namespace

std::string gateway_name(const Config &config) {
  if (!config.gateway.empty()) return config.gateway;
  if (config.gateway_item != 0) return item_text(config.gateway_item);
  return machine_text();
}

}  // namespace msgbridge
