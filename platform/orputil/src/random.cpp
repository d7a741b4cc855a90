// Random numbers from the kernel.

#include <sys/random.h>

#include <cerrno>

#include "orputil.h"

extern "C" uint32_t ORP_UTIL_GetRandomNumber(uint32_t *value) {
  if (value == nullptr) return 1;

  // Up to 256 bytes come whole or not at all.
  uint32_t number;
  ssize_t count;
  do {
    count = ::getrandom(&number, sizeof number, 0);
  } while (count < 0 && errno == EINTR);
  if (count != static_cast<ssize_t>(sizeof number)) return 1;
  *value = number;
  return 0;
}
