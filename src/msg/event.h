// Delivery of events.
#pragma once

#include "msg/header.h"

namespace msgapi::msg {

// ORP_Evt_SubMsgProc: hands an event to the application's callbacks.
void deliver_event(Header *message);

}  // namespace msgapi::msg
