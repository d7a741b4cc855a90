// The tables of /proc/net, asked for names and ports that are in the seeds.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "util/net/proc_net.h"

namespace {

int g_file = -1;

int rewound() {
  if (::lseek(g_file, 0, SEEK_SET) != 0) std::abort();
  return g_file;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  g_file = ::memfd_create("table", MFD_CLOEXEC);
  return g_file < 0 || std::freopen("/dev/null", "w", stdout) == nullptr ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (::ftruncate(g_file, 0) != 0 ||
      ::pwrite(g_file, data, size, 0) != static_cast<ssize_t>(size)) {
    std::abort();
  }

  (void)msgapi::net::has_tcp_listener(rewound(), 0x1F90);
  (void)msgapi::net::find_interface_counters(rewound(), "eth0");
  const auto address = msgapi::net::find_link_local_address(rewound(), "eth0");
  if (address && !IN6_IS_ADDR_LINKLOCAL(&*address)) std::abort();
  return 0;
}
