// Trace points of the loop and its watchers: they all have one level and cost one call.
#pragma once

#include "msgapi/msg.h"
#include "msgapi/trace.h"

namespace msgapi::uv {

constexpr uint32_t kTraceLevel = 8;

// Shows a pointer to a function in a trace record.
template <typename R, typename... Args>
void *address(R (*function)(Args...)) {
  return reinterpret_cast<void *>(function);
}

// The record before ("start") and after ("end") a procedure takes a message, in the loop's
// iteration of that number. The names end at their field, NUL or not.
inline void trace_handling(const char *function, uint32_t line, const char *moment,
                           uint64_t iteration, const ORP_MSG_HEADER_ST &header) {
  ORP_TRACE_PrintInfo(function, line, 0, "track", kTraceLevel,
                      "[%s msg %lld:0x%x] msg type:[0x%x] app:[%.12s] data:[%u] len:[%u] "
                      "dst:[%.12s] src:[%.12s]",
                      moment, static_cast<long long>(iteration), header.ulMsgType, header.ulMsgType,
                      g_appName, header.ulMsgData, header.ulDataLen, header.aucRecvApp,
                      header.aucSendApp);
}

}  // namespace msgapi::uv
