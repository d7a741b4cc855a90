// Rights of the process.

#include <unistd.h>

#include "orputil.h"

extern "C" uint32_t ORP_UTIL_UpRootPrivileges(void) {
  return ::seteuid(0) == 0 ? 0 : 1;
}
