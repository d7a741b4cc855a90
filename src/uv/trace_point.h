// Trace points: all have one level, and each record costs one call of ORP_TRACE_PrintInfo. All
// records about messages are in this file; the other records are where they are written.
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

// What every record of a message says of it. Names end with their field, NUL or not.
#define MSGAPI_TRACED_MESSAGE \
  "msg type:[0x%x] app:[%.12s] data:[%u] len:[%u] dst:[%.12s] src:[%.12s]"

// The records of one message. Made on the spot, so that a record names the function and the line
// that it comes from.
class MessageTrace {
 public:
  explicit MessageTrace(const ORP_MSG_HEADER_ST &header,
                        const char *function = __builtin_FUNCTION(),
                        uint32_t line = __builtin_LINE())
      : header_(header), function_(function), line_(line) {}

  void sending(uint32_t board) const {
    ORP_TRACE_PrintInfo(function_, line_, 0, "msg", kTraceLevel,
                        "Send " MSGAPI_TRACED_MESSAGE " on board [%u] ...", header_.ulMsgType,
                        g_appName, header_.ulMsgData, header_.ulDataLen, header_.aucRecvApp,
                        header_.aucSendApp, board);
  }

  // By the event loop: before the body is read.
  void received(uint32_t board, uint32_t flags) const {
    ORP_TRACE_PrintInfo(function_, line_, 0, "msg", kTraceLevel,
                        "recvd " MSGAPI_TRACED_MESSAGE " on board %u with flags 0x%x ...",
                        header_.ulMsgType, g_appName, header_.ulMsgData, header_.ulDataLen,
                        header_.aucRecvApp, header_.aucSendApp, board, flags);
  }

  // By a synchronous call: before the body is read.
  void received(uint32_t board, uint32_t flags, bool body_in_file) const {
    ORP_TRACE_PrintInfo(function_, line_, 0, "msg", kTraceLevel,
                        "recvd " MSGAPI_TRACED_MESSAGE " on board %u with flags [0x%x]:%u ...",
                        header_.ulMsgType, g_appName, header_.ulMsgData, header_.ulDataLen,
                        header_.aucRecvApp, header_.aucSendApp, board, flags,
                        body_in_file ? 1u : 0u);
  }

  void put_aside(uint32_t status) const {
    ORP_TRACE_PrintInfo(function_, line_, 0, "msg", kTraceLevel,
                        "Backup not matched " MSGAPI_TRACED_MESSAGE " return %x.",
                        header_.ulMsgType, g_appName, header_.ulMsgData, header_.ulDataLen,
                        header_.aucRecvApp, header_.aucSendApp, status);
  }

  void matched(const void *procedure) const {
    ORP_TRACE_PrintInfo(function_, line_, 0, "msg", kTraceLevel,
                        "Match " MSGAPI_TRACED_MESSAGE " with function %p [%s].", header_.ulMsgType,
                        g_appName, header_.ulMsgData, header_.ulDataLen, header_.aucRecvApp,
                        header_.aucSendApp, procedure, "");
  }

  // `type` is the one that the message came with: procedures may have changed it.
  void processed(uint32_t type) const {
    ORP_TRACE_PrintInfo(function_, line_, 0, "msg", kTraceLevel,
                        "Process " MSGAPI_TRACED_MESSAGE " finished.", type, g_appName,
                        header_.ulMsgData, header_.ulDataLen, header_.aucRecvApp,
                        header_.aucSendApp);
  }

  // Before ("start") and after ("end") a procedure takes the message, in the loop's iteration of
  // that number.
  void handling(const char *moment, uint64_t iteration) const {
    ORP_TRACE_PrintInfo(
        function_, line_, 0, "track", kTraceLevel, "[%s msg %lld:0x%x] " MSGAPI_TRACED_MESSAGE,
        moment, static_cast<long long>(iteration), header_.ulMsgType, header_.ulMsgType, g_appName,
        header_.ulMsgData, header_.ulDataLen, header_.aucRecvApp, header_.aucSendApp);
  }

 private:
  const ORP_MSG_HEADER_ST &header_;
  const char *function_;
  uint32_t line_;
};

#undef MSGAPI_TRACED_MESSAGE

// A message that is handed to a procedure, which may change or free it: the records before and
// after both show the message as it came.
class HandledMessage {
 public:
  HandledMessage(const char *function, const ORP_MSG_HEADER_ST &header)
      : function_(function), header_(header) {}

  void trace_start(uint64_t iteration, uint32_t line = __builtin_LINE()) const {
    MessageTrace(header_, function_, line).handling("start", iteration);
  }
  void trace_end(uint64_t iteration, uint32_t line = __builtin_LINE()) const {
    MessageTrace(header_, function_, line).handling("end", iteration);
  }

 private:
  const char *function_;
  ORP_MSG_HEADER_ST header_;
};

}  // namespace msgapi::uv
