// What /proc/net says about ports, counters and IPv6 addresses.
//
// The line sizes are those of the platform's programs, and a longer line is read as several; no
// kernel prints lines near them.

#include "util/net/proc_net.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <span>

#include "base/text.h"
#include "msgapi/net.h"
#include "os/fd.h"
#include "os/line_reader.h"

namespace msgapi::net {
namespace {

static_assert(sizeof(ORP_UTIL_IFC_STAT_ST) == 32);

constexpr unsigned kTcpListen = 0x0A;
constexpr int kDevHeadingLines = 2;
constexpr size_t kDevWords = 17;  // the name and sixteen counters

os::UniqueFd open_table(const char *path) {
  return os::UniqueFd(::open(path, O_RDONLY | O_CLOEXEC));
}

// The low 32 bits of a decimal number, as the kernel counts without a bound where it can.
uint32_t counter(std::string_view digits) {
  uint64_t value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return static_cast<uint32_t>(value);
}

// True when `line` holds `name` with a ":" directly after it. It may be the end of a longer name:
// that is deliberate.
bool belongs_to(std::string_view line, std::string_view name) {
  for (size_t at = line.find(name); at != std::string_view::npos; at = line.find(name, at + 1)) {
    if (at + name.size() < line.size() && line[at + name.size()] == ':') return true;
  }
  return false;
}

// Old kernels print the first counter directly after the name's ":"; moves it away by a blank.
std::string_view separate_first_counter(std::span<char> buffer, std::string_view line) {
  const size_t digit = line.find(':') + 1;
  if (digit == 0 || digit >= line.size() || line[digit] < '0' || line[digit] > '9') return line;
  if (line.size() + 1 >= buffer.size()) return line;

  std::memmove(&buffer[digit + 1], &buffer[digit], line.size() - digit);
  buffer[digit] = ' ';
  return {buffer.data(), line.size() + 1};
}

// "fe80000000000000..." with a ":" before every fourth digit.
std::optional<in6_addr> parse_plain_address(std::string_view digits) {
  std::array<char, 64> text;
  size_t length = 0;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (length + 2 >= text.size()) break;
    if (i != 0 && i % 4 == 0) text[length++] = ':';
    text[length++] = digits[i];
  }
  text[length] = '\0';

  in6_addr address;
  if (::inet_pton(AF_INET6, text.data(), &address) != 1) return std::nullopt;
  return address;
}

}  // namespace

bool has_tcp_listener(int fd, uint32_t port) {
  os::LineReader lines(fd);
  std::array<char, 255> line;
  while (lines.next(line)) {
    int number;
    char local[65], remote[65], rest[128];
    unsigned local_port, remote_port, state;
    if (std::sscanf(line.data(), "%d: %64[0-9A-Fa-f]:%X %64[0-9A-Fa-f]:%X %X %127s\n", &number,
                    local, &local_port, remote, &remote_port, &state, rest) != 7) {
      std::printf("%d msgapi parse tcpfile failed!\n", static_cast<int>(::getpid()));
      continue;
    }
    if (local_port == port && state == kTcpListen) return true;
  }
  return false;
}

std::optional<ORP_UTIL_IFC_STAT_ST> find_interface_counters(int fd, std::string_view name) {
  os::LineReader lines(fd);
  std::array<char, 512> buffer;
  for (int i = 0; i < kDevHeadingLines; ++i) {
    if (!lines.next(buffer)) return std::nullopt;
  }

  while (const auto line = lines.next(buffer)) {
    std::string_view text = separate_first_counter(buffer, *line);
    if (!belongs_to(text, name)) continue;

    std::array<std::string_view, kDevWords> words;
    for (std::string_view &word : words) word = cut_word(&text);
    if (words.back().empty()) continue;
    return ORP_UTIL_IFC_STAT_ST{counter(words[1]),  counter(words[2]), counter(words[3]),
                                counter(words[4]),  counter(words[9]), counter(words[10]),
                                counter(words[11]), counter(words[12])};
  }
  return std::nullopt;
}

std::optional<in6_addr> find_link_local_address(int fd, std::string_view name) {
  os::LineReader lines(fd);
  std::array<char, 256> buffer;
  while (const auto line = lines.next(buffer)) {
    std::string_view text = *line;
    std::array<std::string_view, 6> words;
    for (std::string_view &word : words) word = cut_word(&text);
    if (words.back().empty() || words.back() != name) continue;

    const auto address = parse_plain_address(words.front());
    if (address && IN6_IS_ADDR_LINKLOCAL(&*address)) return address;
  }
  return std::nullopt;
}

}  // namespace msgapi::net

using namespace msgapi;
using namespace msgapi::net;

extern "C" uint32_t ORP_UTIL_CheckTCPPortInUse(uint32_t port) {
  const os::UniqueFd table = open_table("/proc/net/tcp");
  return table && has_tcp_listener(table.get(), port) ? 1 : 0;
}

extern "C" uint32_t ORP_UTIL_GetIfcStatInfoEx(const char *ifName, ORP_UTIL_IFC_STAT_ST *counters) {
  if (ifName == nullptr || ifName[0] == '\0' || counters == nullptr) return 0;

  const os::UniqueFd table = open_table("/proc/net/dev");
  if (!table) return 0;
  const auto found = find_interface_counters(table.get(), ifName);
  if (found) *counters = *found;
  return 0;
}

extern "C" uint32_t ORP_UTIL_GetIpv6LinkAddress(const char *ifName, char *out, uint32_t outSize) {
  if (ifName == nullptr || out == nullptr) return 0;

  const os::UniqueFd table = open_table("/proc/net/if_inet6");
  if (!table) return 0;
  const auto found = find_link_local_address(table.get(), ifName);
  if (!found) return 0;

  char text[INET6_ADDRSTRLEN];
  ::inet_ntop(AF_INET6, &*found, text, sizeof text);
  return copy_exact({out, outSize}, text) ? 1 : 0;
}
