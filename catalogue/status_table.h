// The table of statuses, for the catalogue and for code that must run without the C++ runtime: it
// needs only headers.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "cfmapi.h"
#include "msgapi.h"

namespace catalogue {

enum class StatusFamily : uint8_t {
  kMessages,       // the loop and the message layer (msgapi/status.h)
  kStore,          // the configuration store (cfmapi.h)
  kConfiguration,  // requests to the configuration manager; falls back on these two
  kItems,          // DM messages; falls back on messages
  kEvents,         // falls back on DM messages, then messages
  kLogin,          // falls back on messages
  kProcesses,      // falls back on messages
  kPaths,
  kBlur,
  kBridges,
  kNotify,
  kDns,
  kCharset,
  kLog,
  kSockets,
  kPlain,  // functions that only tell success from failure
};

struct StatusNumber {
  int64_t number;         // negative in the family of the log client
  std::string_view name;  // the constant in the public header; empty where there is none
  StatusFamily family;
  std::string_view sentence;
};

namespace table {

using enum StatusFamily;

inline constexpr StatusNumber kStatuses[] = {
    {ORP_OK, "ORP_OK", kMessages, "done"},
    {ORP_ERR_SOCKET, "ORP_ERR_SOCKET", kMessages, "the socket was not created or not connected"},
    {ORP_ERR_ARGUMENT, "ORP_ERR_ARGUMENT", kMessages, "a bad argument, or there is no loop"},
    {ORP_ERR_EMPTY_NAME, "ORP_ERR_EMPTY_NAME", kMessages, "the server registered an empty name"},
    {ORP_ERR_NOT_CONNECTED, "ORP_ERR_NOT_CONNECTED", kMessages, "used before connecting"},
    {ORP_ERR_PEER_GONE, "ORP_ERR_PEER_GONE", kMessages,
     "the peer closed the connection, or the receiver does not exist"},
    {ORP_ERR_TIMEOUT, "ORP_ERR_TIMEOUT", kMessages, "what was waited for did not come in time"},
    {ORP_ERR_MEMORY, "ORP_ERR_MEMORY", kMessages, "no memory, or a length beyond its limit"},
    {ORP_ERR_SYSTEM, "ORP_ERR_SYSTEM", kMessages, "a system call or a bounded copy failed"},
    {ORP_ERR_NOT_WRITABLE, "ORP_ERR_NOT_WRITABLE", kMessages,
     "not writable within 10 s; from a watcher: the message is too long"},
    {ORP_ERR_HAND_OVER, "ORP_ERR_HAND_OVER", kMessages,
     "the hand-over file of a large body was not written"},

    {CFM_OK, "CFM_OK", kStore, "done"},
    {CFM_ERR_ARGUMENT, "CFM_ERR_ARGUMENT", kStore,
     "a null pointer, or an identifier, type or size that is not possible"},
    {CFM_ERR_NOT_FOUND, "CFM_ERR_NOT_FOUND", kStore, "no such identifier, instance or item"},
    {CFM_ERR_TOO_SMALL, "CFM_ERR_TOO_SMALL", kStore, "the caller's buffer does not hold the value"},
    {CFM_ERR_TYPE, "CFM_ERR_TYPE", kStore, "the value is not of its identifier's type"},
    {CFM_ERR_DAMAGED, "CFM_ERR_DAMAGED", kStore,
     "the store, or an image of it, is damaged or foreign"},
    {CFM_ERR_BUSY, "CFM_ERR_BUSY", kStore, "another process keeps the store locked"},
    {CFM_ERR_UNAVAILABLE, "CFM_ERR_UNAVAILABLE", kStore, "no store, or no access to it"},
    {CFM_ERR_MEMORY, "CFM_ERR_MEMORY", kStore, "no memory"},
    {CFM_ERR_TOO_LONG, "CFM_ERR_TOO_LONG", kStore,
     "the value is longer than its identifier allows"},
    {CFM_ERR_VERSION, "CFM_ERR_VERSION", kStore, "the store was made by a newer release"},

    {ORP_CFM_ERR_FILE_PLACE, "ORP_CFM_ERR_FILE_PLACE", kConfiguration,
     "configuration files may not lie there"},
    {ORP_CFM_ERR_FILE_KEY, "ORP_CFM_ERR_FILE_KEY", kConfiguration,
     "the key of configuration files cannot be read or made"},
    {ORP_CFM_ERR_FILE_WRITE, "ORP_CFM_ERR_FILE_WRITE", kConfiguration, "the file was not written"},
    {ORP_CFM_ERR_FILE_READ, "ORP_CFM_ERR_FILE_READ", kConfiguration, "the file cannot be read"},
    {ORP_CFM_ERR_FILE_FOREIGN, "ORP_CFM_ERR_FILE_FOREIGN", kConfiguration,
     "the file is damaged, cut off or not written by this device"},
    {ORP_CFM_ERR_FILE_TAKEN, "ORP_CFM_ERR_FILE_TAKEN", kConfiguration,
     "something other than a configuration file has that name"},

    {ORP_DMMSG_ERR, "ORP_DMMSG_ERR", kItems,
     "a bad argument, wrong magic, a damaged body, or no further item"},
    {ORP_DMMSG_ERR_MEMORY, "ORP_DMMSG_ERR_MEMORY", kItems, "no memory for a new message"},
    {ORP_DMMSG_ERR_GROW, "ORP_DMMSG_ERR_GROW", kItems,
     "no memory to grow the message, or beyond 32-bit lengths"},

    {ORP_EVT_OK, "ORP_EVT_OK", kEvents, "done"},
    {ORP_EVT_ERR, "ORP_EVT_ERR", kEvents,
     "a missing argument, or the event could not be built or converted"},

    {ORP_LCTRL_OK, "ORP_LCTRL_OK", kLogin, "done"},
    {ORP_LCTRL_ERR_ARGUMENT, "ORP_LCTRL_ERR_ARGUMENT", kLogin, "a null argument"},
    {ORP_LCTRL_ERR_REPLY, "ORP_LCTRL_ERR_REPLY", kLogin, "the reply is shorter than the record"},

    {ORP_ERR_SPAWN_RUNNING, "ORP_ERR_SPAWN_RUNNING", kProcesses,
     "a synchronous spawn is running already"},
    {ORP_ERR_SPAWN_OPTIONS, "ORP_ERR_SPAWN_OPTIONS", kProcesses, "the options cannot be copied"},

    {ORP_PATH_ALLOWED, "ORP_PATH_ALLOWED", kPaths, "the path may be used"},
    {ORP_PATH_ERR_ARGUMENT, "ORP_PATH_ERR_ARGUMENT", kPaths,
     "a null or overlong path, or an empty base"},
    {ORP_PATH_ERR_UNRESOLVED, "ORP_PATH_ERR_UNRESOLVED", kPaths, "the path does not resolve"},
    {ORP_PATH_ERR_BASE_TOO_LONG, "ORP_PATH_ERR_BASE_TOO_LONG", kPaths,
     "the base has 4096 characters or more"},
    {ORP_PATH_ERR_OUTSIDE, "ORP_PATH_ERR_OUTSIDE", kPaths, "the path lies outside the base"},

    {ORP_BLUR_ERR_ARGUMENT, "ORP_BLUR_ERR_ARGUMENT", kBlur,
     "a null path, or the file cannot be opened for update"},
    {ORP_BLUR_ERR_SEEK, "ORP_BLUR_ERR_SEEK", kBlur, "a position in the file cannot be reached"},
    {ORP_BLUR_ERR_WRITE, "ORP_BLUR_ERR_WRITE", kBlur, "the file was not written"},
    {ORP_BLUR_ERR_PATH, "ORP_BLUR_ERR_PATH", kBlur, "the path does not resolve"},
    {ORP_BLUR_ERR_TOO_LONG, "ORP_BLUR_ERR_TOO_LONG", kBlur,
     "the path has more than 4096 characters"},

    {ORP_ERR_BRIDGE_TEXT, "ORP_ERR_BRIDGE_TEXT", kBridges,
     "a text of the forwarding table does not fit its field"},

    {ORP_NOTIFYCLT_OK, "ORP_NOTIFYCLT_OK", kNotify, "done"},
    {ORP_NOTIFYCLT_ERR_SOCKET, "ORP_NOTIFYCLT_ERR_SOCKET", kNotify,
     "no socket, or it was not bound or not connected"},
    {ORP_NOTIFYCLT_ERR_ARGUMENT, "ORP_NOTIFYCLT_ERR_ARGUMENT", kNotify,
     "a bad argument, or not connected"},
    {ORP_NOTIFYCLT_ERR_MODULE, "ORP_NOTIFYCLT_ERR_MODULE", kNotify,
     "the module id is out of range"},
    {ORP_NOTIFYCLT_ERR_PEER_GONE, "ORP_NOTIFYCLT_ERR_PEER_GONE", kNotify,
     "the server closed the connection, or the module was not registered"},
    {ORP_NOTIFYCLT_ERR_TIMEOUT, "ORP_NOTIFYCLT_ERR_TIMEOUT", kNotify,
     "nothing came in time, or the peer closed while writing"},
    {ORP_NOTIFYCLT_ERR_MEMORY, "ORP_NOTIFYCLT_ERR_MEMORY", kNotify,
     "no memory, a message too long, or no place in the loop"},
    {ORP_NOTIFYCLT_ERR_IO, "ORP_NOTIFYCLT_ERR_IO", kNotify, "a read or write failed"},
    {ORP_NOTIFYCLT_ERR_NOT_WRITABLE, "ORP_NOTIFYCLT_ERR_NOT_WRITABLE", kNotify,
     "the server takes nothing for 10 s"},

    {ORP_DNS_OK, "ORP_DNS_OK", kDns, "done"},
    {ORP_DNS_ERR_ARGUMENT, "ORP_DNS_ERR_ARGUMENT", kDns,
     "a bad argument, or a text that cannot be used"},
    {ORP_DNS_ERR_MALFORMED, "ORP_DNS_ERR_MALFORMED", kDns,
     "out of bounds, a bad label or pointer, or a chain too long"},

    {CL_OK, "CL_OK", kCharset, "done"},
    {CL_ERR_ARGUMENT, "CL_ERR_ARGUMENT", kCharset, "an argument is missing, or a length is 0"},
    {CL_ERR_UTF8, "CL_ERR_UTF8", kCharset, "the text is not UTF-8"},
    {CL_ERR_ROOM, "CL_ERR_ROOM", kCharset, "the output has too little room"},
    {CL_ERR_BASE, "CL_ERR_BASE", kCharset, "a number base other than 10 and 16"},

    {MLOG_ERR, "MLOG_ERR", kLog, "a bad argument, a text that does not fit, or a failed exchange"},
    {MLOG_ERR_SOCKET, "MLOG_ERR_SOCKET", kLog, "the transport failed, or nothing came in time"},
    {MLOG_ERR_NETLINK, "MLOG_ERR_NETLINK", kLog, "netlink failed"},

    {ORP_INVALID_SOCKET, "ORP_INVALID_SOCKET", kSockets, "no descriptor; errno says why"},

    {0, "", kPlain, "done"},
    {1, "", kPlain, "a bad argument, or what was asked for is not there"},
};

// A family passes on the statuses of another one.
struct FallBack {
  StatusFamily family;
  StatusFamily to;
};
inline constexpr FallBack kFallBacks[] = {{kConfiguration, kStore}, {kConfiguration, kMessages},
                                          {kItems, kMessages},      {kEvents, kItems},
                                          {kEvents, kMessages},     {kLogin, kMessages},
                                          {kProcesses, kMessages}};

constexpr const StatusNumber *find_in(StatusFamily family, int64_t number) {
  const auto *found = std::ranges::find_if(kStatuses, [&](const StatusNumber &status) {
    return status.family == family && status.number == number;
  });
  return found == std::end(kStatuses) ? nullptr : found;
}

}  // namespace table

// The meaning of a number that a function of the family has returned; null when it has none.
constexpr const StatusNumber *find_status(int64_t number,
                                          StatusFamily family = StatusFamily::kMessages) {
  if (const StatusNumber *own = table::find_in(family, number)) return own;
  for (const table::FallBack &fall_back : table::kFallBacks) {
    if (fall_back.family != family) continue;
    if (const StatusNumber *other = table::find_in(fall_back.to, number)) return other;
  }
  return nullptr;
}

}  // namespace catalogue
