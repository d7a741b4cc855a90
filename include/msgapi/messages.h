/*
 * Numbers of the message types that the library and the servers use; each stands here and nowhere
 * else. docs/message-protocol.md lists what each message carries. A name in a body is a field of
 * ORP_APP_NAME_SIZE bytes. Types are 20 bits wide. Applications take numbers that are free here and
 * describe them to tools as docs/message-types.md says.
 */
#ifndef MSGAPI_MESSAGES_H
#define MSGAPI_MESSAGES_H

/* ---- Processes and their connection (msgapi/msg.h, msgapi/device.h) ----------------------- */

#define ORP_MSG_UNDELIVERABLE 0x108u   /* from the server; ulMsgData: the undeliverable type */
#define ORP_MSG_REGISTER 0x701u        /* registration and its reply */
#define ORP_MSG_SUBSCRIBE 0x702u       /* ulMsgData: event; body: another application's name */
#define ORP_MSG_UNSUBSCRIBE 0x703u     /* the same */
#define ORP_MSG_COUNT_PROCESSES 0x705u /* body: name; the reply's ulMsgData is the count */
#define ORP_MSG_EXIT 0x706u            /* orderly exit of an application */
#define ORP_MSG_KEEP_ALIVE 0x708u      /* to the server, periodically when it asked for it */
#define ORP_MSG_STOP_WATCHDOG 0x709u   /* the sender sends no more keep-alives */
#define ORP_MSG_FACTORY_MODE 0x70au    /* the reply's ulMsgData: 1 in the factory */
#define ORP_MSG_REBOOT 0x500eu         /* ulMsgData: mode */

/* ---- Restful requests (msgapi/restful.h) --------------------------------------------------- */

#define ORP_MSG_RESTFUL_REGISTER 0x109u /* to the server: the application serves a path */
/* Requests; the three are treated alike. ORP_MSG_BuildRestfulReqMsg makes the second. */
#define ORP_MSG_RESTFUL_REQUEST_A 0x10au
#define ORP_MSG_RESTFUL_REQUEST 0x10du
#define ORP_MSG_RESTFUL_REQUEST_E 0x10eu

/* ---- DM messages (msgapi/dmmsg.h) ---------------------------------------------------------- */

#define ORP_DMMSG_TYPE 0x209u /* what ORP_DMMSG_Builder makes */

/* ---- Scripts, dynamic applications, synchronisation points (msgapi/dynapp.h) --------------- */

#define ORP_MSG_POST_SCRIPT 0x490cu     /* to "web"; body: first argument, script */
#define ORP_MSG_DYNAPP_UPDATE 0x5001u   /* ulMsgData: ORP_DYNAPP_*; body: name */
#define ORP_MSG_DYNAPP_STOP_ALL 0x504du /* answered after the last one has ended */
#define ORP_MSG_SYNC_WAIT 0x5018u       /* body: the point's name; answered at its release */
#define ORP_MSG_SYNC_POST 0x5019u       /* body: the point's name */

/* ---- The configuration manager (msgapi/dmmsg.h) -------------------------------------------- */

#define ORP_MSG_SAVE_CFG 0x5009u             /* ulMsgData: user; no answer */
#define ORP_MSG_RESTORE_DEFAULTS 0x500fu     /* body: mode, user; no answer */
#define ORP_MSG_EXPORT_CFG_FILE 0x5026u      /* body: path */
#define ORP_MSG_IMPORT_CFG_FILE 0x5027u      /* body: path */
#define ORP_MSG_CHECK_CFG_FILE 0x5028u       /* body: path */
#define ORP_MSG_SAVE_APPDATA_SYNC 0x502au    /* saves application data */
#define ORP_MSG_SAVE_CFG_SYNC 0x502bu        /* ORP_MSG_SAVE_CFG with an answer */
#define ORP_MSG_DELETE_APPDATA 0x5033u       /* deletes application data */
#define ORP_MSG_EXPORT_USER 0x5035u          /* ulMsgData: whose part the next export takes */
#define ORP_MSG_SAVE_CFG_TO_APP 0x503fu      /* ulMsgData: user; no answer */
#define ORP_MSG_SAVE_CFG_TO_APP_SYNC 0x5040u /* the same with an answer */

/* ---- Login control (msgapi/login.h) -------------------------------------------------------- */

#define ORP_LCTRL_MSG_LOGIN 0x2cf01u           /* a login attempt and how it ended */
#define ORP_LCTRL_MSG_CHECK 0x2cf02u           /* may that client try? */
#define ORP_LCTRL_MSG_SET_MAX_FAILED 0x2cf03u  /* how many attempts may fail */
#define ORP_LCTRL_MSG_CLEAR_FORBIDDEN 0x2cf04u /* everybody may try again */
#define ORP_LCTRL_MSG_GET_ROUND 0x2cf05u       /* how often that client was forbidden */

/* ---- Events (msgapi/event.h) --------------------------------------------------------------- */

/* An event's type shifted right by 8: types 0x2DA00 to 0x2DAFF. */
#define ORP_MSG_EVENT_PAGE 0x2dau
/* In a subscription: every event. */
#define ORP_MSG_ALL_EVENTS 0x2da00u

/* Subscribers receive events from this number on as JSON, lower ones as the bytes that were
 * published. */
#define ORP_MSG_FIRST_JSON_EVENT 0x2da64u

/* Events by the module that raises them. */
#define ORP_MSG_EVENT_DEVICE 0x2da01u
#define ORP_MSG_EVENT_MONITOR 0x2da02u
#define ORP_MSG_EVENT_PLUGIN_QUEUES 0x2da03u
#define ORP_MSG_EVENT_TRACKING 0x2da04u
#define ORP_MSG_EVENT_TESSEL 0x2da05u
#define ORP_MSG_EVENT_AUTO_UPDATE 0x2da06u
#define ORP_MSG_EVENT_NETWORK 0x2da07u
#define ORP_MSG_EVENT_TESSEL_PROXY 0x2da08u
#define ORP_MSG_EVENT_FEED 0x2da09u
#define ORP_MSG_EVENT_SIGNAL 0x2da0au
#define ORP_MSG_EVENT_WAN 0x2da65u
#define ORP_MSG_EVENT_LAN 0x2da66u
#define ORP_MSG_EVENT_WLAN 0x2da67u
#define ORP_MSG_EVENT_DHCP 0x2da68u
#define ORP_MSG_EVENT_WEB 0x2da69u
#define ORP_MSG_EVENT_WEBCONSOLE 0x2da6au
#define ORP_MSG_EVENT_ONLINE_UPDATE 0x2da6bu
#define ORP_MSG_EVENT_USB 0x2da6cu
#define ORP_MSG_EVENT_BEHAVIOR 0x2da6du

#endif
