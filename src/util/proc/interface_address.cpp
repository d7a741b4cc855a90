#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>

#include "base/text.h"
#include "msgapi/proc.h"
#include "os/fd.h"

namespace msgapi::proc {
namespace {

bool read_address(const char *interface, sockaddr_in *out) {
  const os::UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) return false;

  *out = {};
  ifreq request = {};
  copy_cut(request.ifr_name, interface);
  if (::ioctl(socket.get(), SIOCGIFADDR, &request) != 0 || request.ifr_addr.sa_family != AF_INET) {
    return false;
  }
  std::memcpy(out, &request.ifr_addr, sizeof *out);
  return true;
}

}  // namespace
}  // namespace msgapi::proc

extern "C" uint32_t ORP_UTIL_GetIpByName(const char *name, struct sockaddr_in *address) {
  if (name == nullptr || address == nullptr) return 1;

  return msgapi::proc::read_address(name, address) ? 0 : 1;
}
