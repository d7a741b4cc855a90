// Dispatch, for the rest of the library.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "msg/header.h"

namespace msgapi::msg {

// The gate: every message enters the application here; see ORP_MSG_FilterProc.
void take_in(Header *message);

// ORP_MSG_RegMsgProcEx; either procedure may be null.
Result<ORP_MSG_REG_HANDLE> register_procedure(uint32_t type, ORP_MSG_PROC message_proc,
                                              ORP_MSG_SYNC_PROC sync_proc, uint32_t priority);

}  // namespace msgapi::msg
