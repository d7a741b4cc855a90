// Events as msgctl prints them.
#pragma once

#include "msgctl/bus.h"
#include "msgctl/context.h"

namespace msgctl {

// Whether the message is that event, or for ORP_MSG_ALL_EVENTS any.
bool is_event(const ORP_MSG_HEADER_ST &message, uint32_t event);

void print_event(const Context &context, const ORP_MSG_HEADER_ST &message);

}  // namespace msgctl
