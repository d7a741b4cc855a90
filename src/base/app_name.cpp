// The process's application name lives down here because the layers below the message context,
// which sets it, show it.

#include "msgapi/trace.h"

char g_appName[ORP_APP_NAME_SIZE];
