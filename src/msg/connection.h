// The process's connection to the message server, on the event loop.
#pragma once

#include "msgapi/loop.h"

namespace msgapi::msg {

// The context's message watcher, or null when there is none or its loop has let it go.
OrpUvMsg *running_watcher();

}  // namespace msgapi::msg
