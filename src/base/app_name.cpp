// The process's application name. The message context sets it; it lives here because lower layers
// show it.

#include "msgapi/trace.h"

char g_appName[ORP_APP_NAME_SIZE];
