// Trace points of the loop and its watchers: they all have one level and cost one call.
#pragma once

#include "msgapi/trace.h"

namespace msgapi::uv {

constexpr uint32_t kTraceLevel = 8;

// Shows a pointer to a function in a trace record.
template <typename R, typename... Args>
void *address(R (*function)(Args...)) {
  return reinterpret_cast<void *>(function);
}

}  // namespace msgapi::uv
