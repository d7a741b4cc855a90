// Datagrams from a stranger, received by the calls of the log transport.
//
// Input: two bytes of buffer size, then the datagram.

#include <sys/socket.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/bytes.h"
#include "msgapi/log.h"

namespace {

struct Pair {
  Pair() {
    if (::socketpair(AF_UNIX, SOCK_DGRAM, 0, fds) != 0) std::abort();
    // Without the diagnostics of refused messages.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
  }
  int fds[2];
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const Pair pair;
  if (size < 2 || size > 4096) return 0;
  const uint16_t room = msgapi::load<uint16_t>(data) % 1100;
  data += 2;
  size -= 2;

  // A block of exactly the stated capacity: AddressSanitizer reports a byte beyond it.
  std::vector<char> block(MLOG_HEAD_SIZE + room);
  MlogMsg *message = reinterpret_cast<MlogMsg *>(block.data());
  msgapi::store(block.data() + 4, uint32_t{room});
  ::send(pair.fds[0], data, size, 0);
  if (MlogRecvMsg(pair.fds[1], message, 1, nullptr, 0) == 0) {
    const size_t taken = MLOG_HEAD_SIZE + size_t{message->length};
    if (taken > size || std::memcmp(block.data(), data, taken) != 0) std::abort();
  }
  ::recv(pair.fds[1], nullptr, 0, MSG_DONTWAIT);  // left when the capacity was refused

  std::vector<char> payload(room);
  ::send(pair.fds[0], data, size, 0);
  if (MlogNetlinkReceive(pair.fds[1], payload.data(), room) == 0) {
    const size_t taken = msgapi::load<uint32_t>(data) - 16u;
    if (taken > room || std::memcmp(payload.data(), data + 16, taken) != 0) std::abort();
  }
  ::recv(pair.fds[1], nullptr, 0, MSG_DONTWAIT);
  return 0;
}
