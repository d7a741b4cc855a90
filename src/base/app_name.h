// The process's application name, shared by the message context, which sets it, and the layers
// below that show it.
#pragma once

#include "msgapi/export.h"

// Always NUL-terminated.
MSGAPI_EXPORT char g_appName[ORP_APP_NAME_SIZE];
