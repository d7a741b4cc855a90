// Protocol names and default ports, and splitting a URL.

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include "base/memory.h"
#include "msgapi/url.h"
#include "orputil.h"
#include "util/url/encode.h"

const char *const *g_extendProtocols;
const uint32_t *g_extendPorts;

namespace msgapi::url {
namespace {

constexpr const char *kProtocols[] = {"HTTP", "HTTPS", "FTP", "TFTP"};
constexpr uint32_t kDefaultPorts[] = {80, 443, 21, 69};
constexpr uint32_t kProtocolCount = std::size(kProtocols);

constexpr std::string_view kHostMark = "://";
constexpr long kMaxPort = 65535;

bool is_space(char character) {
  return character == ' ' || (character >= 9 && character <= 13);
}

uint32_t protocol_index(const char *name) {
  return ORP_UTIL_GetIdxFromStr(name, kProtocols, kProtocolCount, g_extendProtocols);
}

uint32_t default_port(uint32_t index) {
  if (index < kProtocolCount) return kDefaultPorts[index];
  if (g_extendPorts == nullptr) return 0;
  const uint32_t *port = g_extendPorts;
  for (uint32_t skip = index - kProtocolCount; skip > 0 && *port != 0; --skip) ++port;
  return *port;
}

struct Outputs {
  uint32_t *protocol;
  char **host;
  uint32_t *port;
  char **path;
};

// Cuts the text at `place`, which may be null.
void cut(char *place) {
  if (place != nullptr) *place = '\0';
}

// Splits `url` in place.
bool split(char *url, const Outputs &outputs) {
  char *host = std::strstr(url, kHostMark.data());
  if (host == nullptr) return false;
  cut(host);
  host += kHostMark.size();
  const uint32_t protocol = protocol_index(url);
  if (protocol == ORP_URL_PROTOCOL_UNKNOWN) return false;
  *outputs.protocol = protocol;

  char *bracket = nullptr;
  if (*host == '[') {
    bracket = std::strchr(++host, ']');
    if (bracket == nullptr) return false;
  }
  // Port and path are looked for independently: without a port, a ":" in the path counts.
  char *const search = bracket == nullptr ? host : bracket;
  char *const colon = std::strchr(search, ':');
  char *const slash = std::strchr(search, '/');

  const long port = colon == nullptr ? static_cast<long>(default_port(protocol))
                                     : std::strtol(colon + 1, nullptr, 10);
  if (port < 1 || port > kMaxPort) return false;
  *outputs.port = static_cast<uint32_t>(port);

  cut(colon);
  Owned<char> path;
  if (slash != nullptr && outputs.path != nullptr) {
    path = escape_uri(slash);
    if (!path) return false;
  }
  cut(slash);
  cut(bracket);
  if (outputs.host != nullptr) {
    *outputs.host = duplicate_text(host).release();
    if (*outputs.host == nullptr) return false;
  }
  if (outputs.path != nullptr) *outputs.path = path.release();
  return true;
}

}  // namespace
}  // namespace msgapi::url

using namespace msgapi;

extern "C" uint32_t ORP_UTIL_GetProtocolTypeIdxFromStr(const char *name) {
  return url::protocol_index(name);
}

extern "C" const char *ORP_UTIL_GetProtocolTypeStrFromIdx(uint32_t index) {
  return ORP_UTIL_GetStrFromIdx(index, url::kProtocols, url::kProtocolCount, g_extendProtocols);
}

extern "C" uint32_t ORP_UTIL_GetDftPortByProtocolIdx(int32_t index) {
  return index < 0 ? 0 : url::default_port(static_cast<uint32_t>(index));
}

extern "C" uint32_t ORP_UTIL_ParseUrl(const char *url, uint32_t *protocol, char **host,
                                      uint32_t *port, char **path) {
  uint32_t unwanted;
  const url::Outputs outputs = {protocol == nullptr ? &unwanted : protocol, host,
                                port == nullptr ? &unwanted : port, path};
  *outputs.protocol = 0;
  *outputs.port = 0;
  if (host != nullptr) *host = nullptr;
  if (path != nullptr) *path = nullptr;
  if (url == nullptr) return 0;

  while (url::is_space(*url)) ++url;
  const Owned<char> copy = duplicate_text(url);
  return copy && url::split(copy.get(), outputs) ? 1 : 0;
}

extern "C" uint32_t ORP_UTIL_ParseUrlEx(const char *url, uint32_t *protocol, char **host,
                                        uint32_t *port, char **path, ORP_WORD) {
  return ORP_UTIL_ParseUrl(url, protocol, host, port, path);
}
