#include "msgbridge/identity.h"

#include <fmt/core.h>
#include <sodium.h>

#include <array>
#include <fstream>
#include <stdexcept>
#include <string_view>

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

// machine-id(5): an image whose machines have no id yet has the word "uninitialized" there, which
// would give all of them one name.
bool is_machine_id(std::string_view text) {
  return text.size() == 32 && text.find_first_not_of("0123456789abcdef") == text.npos &&
         text.find_first_not_of('0') != text.npos;
}

// machine-id(5) asks programs to publish only a keyed hash of the id.
std::string machine_text(const std::string &path) {
  constexpr std::string_view kKey = "msgbridge gateway name";
  std::string machine;
  std::ifstream(path) >> machine;
  std::array<unsigned char, 16> hash{};
  if (!is_machine_id(machine) || sodium_init() < 0 ||
      crypto_generichash(hash.data(), hash.size(),
                         reinterpret_cast<const unsigned char *>(machine.data()), machine.size(),
                         reinterpret_cast<const unsigned char *>(kKey.data()), kKey.size()) != 0) {
    throw std::runtime_error("this gateway has no name: there is no machine's id in " + path +
                             ", and the configuration has no 'gateway'");
  }
  std::string name;
  for (const unsigned char byte : hash) name += fmt::format("{:02x}", byte);
  return name;
}

}  // namespace

std::string gateway_name(const Config &config, const std::string &machine_id) {
  if (!config.gateway.empty()) return config.gateway;
  if (config.gateway_item != 0) return item_text(config.gateway_item);
  return machine_text(machine_id);
}

}  // namespace msgbridge
