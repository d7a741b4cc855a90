// Listings of the bridge tool: whatever they hold, texts taken from them are bounded and end with a
// NUL.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "base/text.h"
#include "util/net/bridge_listing.h"

namespace {

int g_file = -1;

int rewound() {
  if (::lseek(g_file, 0, SEEK_SET) != 0) std::abort();
  return g_file;
}

void check(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  g_file = ::memfd_create("listing", MFD_CLOEXEC);
  return g_file < 0 ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  check(::ftruncate(g_file, 0) == 0);
  check(::pwrite(g_file, data, size, 0) == static_cast<ssize_t>(size));

  char names[24];
  std::memset(names, 'z', sizeof names);
  msgapi::net::list_bridges(rewound(), names);
  check(msgapi::is_terminated(names));

  char bridge[8];
  if (msgapi::net::find_bridge_of(rewound(), "eth1", bridge)) check(bridge[0] != '\0');

  char interfaces[3][ORP_IF_NAME_SIZE];
  std::memset(interfaces, 'z', sizeof interfaces);
  if (msgapi::net::list_interfaces(rewound(), "br0", interfaces)) {
    check(msgapi::is_terminated(interfaces[0]));
  }

  if (const auto line = msgapi::net::find_mac(rewound(), "02:00:00:00:00:01")) {
    check(msgapi::is_terminated(line->interface));
  }
  return 0;
}
