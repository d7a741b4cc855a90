#include "base/app_name.h"

char g_appName[ORP_APP_NAME_SIZE];
