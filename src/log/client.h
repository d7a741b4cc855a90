// The module log, for the layers above.
#pragma once

#include <cstdint>

#include "msgapi/log.h"  // IWYU pragma: export, for its levels

namespace msgapi::log {

// mlog_print(). Leaves errno as it is.
__attribute__((format(printf, 3, 4))) void print(const char *module, uint32_t level,
                                                 const char *format, ...);

}  // namespace msgapi::log
