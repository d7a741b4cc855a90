/* All public headers of libmsgapi. */
#ifndef MSGAPI_H
#define MSGAPI_H

#include "msgapi/export.h"
#include "msgapi/log.h"
#include "msgapi/msg.h"
#include "msgapi/status.h"

#endif
