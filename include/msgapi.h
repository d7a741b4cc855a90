/* All public headers of libmsgapi. */
#ifndef MSGAPI_H
#define MSGAPI_H

#include "msgapi/blur.h"
#include "msgapi/bridge.h"
#include "msgapi/charset.h"
#include "msgapi/device.h"
#include "msgapi/dmmsg.h"
#include "msgapi/dns.h"
#include "msgapi/dynapp.h"
#include "msgapi/event.h"
#include "msgapi/export.h"
#include "msgapi/fdpass.h"
#include "msgapi/log.h"
#include "msgapi/login.h"
#include "msgapi/loop.h"
#include "msgapi/mac.h"
#include "msgapi/msg.h"
#include "msgapi/net.h"
#include "msgapi/netlink.h"
#include "msgapi/notify.h"
#include "msgapi/nvpair.h"
#include "msgapi/path.h"
#include "msgapi/restful.h"
#include "msgapi/sockbase.h"
#include "msgapi/status.h"
#include "msgapi/str.h"
#include "msgapi/time.h"
#include "msgapi/trace.h"
#include "msgapi/url.h"
#include "msgapi/web.h"

#endif
