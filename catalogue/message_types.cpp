#include "catalogue/message_types.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iterator>

#include "msgapi/messages.h"
#include "msgapi/msg.h"

namespace catalogue {
namespace {

constexpr std::string_view kApplication = "application";
constexpr std::string_view kServer = "server";
constexpr std::string_view kAnybody = "application, server";

constexpr Content kNothing{.data = ""};
constexpr Content kStatus{.data = "status"};
constexpr Content kZero{.data = "0"};
constexpr Content kUser{.data = "configuration user"};
constexpr Content kNameOnly{.data = "", .body = Body::kName};
constexpr Content kTextOnly{.data = "", .body = Body::kText};
constexpr Content kPathOnly{.data = "", .body = Body::kPath};
constexpr Content kRestfulRequest{.data = "", .body = Body::kRestful};
constexpr Content kRestfulAnswer{.data = "that of the request", .body = Body::kText};
constexpr Content kEventBody{.data = "0", .body = Body::kEvent};

constexpr Content record(std::string_view name) {
  return {.data = "", .body = Body::kRecord, .record = name};
}

// An event that `module` raises.
constexpr MessageType event(uint32_t number, std::string_view name, std::string_view constant,
                            std::string_view meaning) {
  return {number,     name,         constant, Group::kEvents, kApplication, "subscribers",
          kEventBody, std::nullopt, 0,        meaning};
}

using enum Group;

constexpr MessageType kTypes[] = {
    {ORP_MSG_UNDELIVERABLE, "undeliverable", "ORP_MSG_UNDELIVERABLE", kDelivery, kServer,
     kApplication, Content{.data = "type that was not delivered"}, std::nullopt, 0,
     "the message with this type and sequence number was not delivered; a synchronous wait for the "
     "type ends"},
    {ORP_MSG_RESTFUL_REGISTER, "restful-register", "ORP_MSG_RESTFUL_REGISTER", kRestful,
     kApplication, kServer, kTextOnly, std::nullopt, 0,
     "the sender serves the path, or the paths separated by \"|\""},
    {ORP_MSG_RESTFUL_REQUEST_A, "restful-request-a", "ORP_MSG_RESTFUL_REQUEST_A", kRestful,
     kAnybody, kApplication, kRestfulRequest, kRestfulAnswer, 0, "as `restful-request`"},
    {ORP_MSG_RESTFUL_REQUEST, "restful-request", "ORP_MSG_RESTFUL_REQUEST", kRestful, kAnybody,
     kApplication, kRestfulRequest, kRestfulAnswer, 0, "calls the handler of a path"},
    {ORP_MSG_RESTFUL_REQUEST_E, "restful-request-e", "ORP_MSG_RESTFUL_REQUEST_E", kRestful,
     kAnybody, kApplication, kRestfulRequest, kRestfulAnswer, 0, "as `restful-request`"},
    {ORP_DMMSG_TYPE, "dm-message", "ORP_DMMSG_TYPE", kItems, kApplication, kAnybody,
     Content{.data = "", .body = Body::kItems}, std::nullopt, 0,
     "named items; the DM sub type says their purpose"},
    {ORP_MSG_REGISTER, "register", "ORP_MSG_REGISTER", kProcesses, kApplication, kServer, kNothing,
     Content{.data = "non-zero: headers travel reversed",
             .body = Body::kRecord,
             .record = "two words: keep-alive wanted, its period in seconds"},
     60000, "registers the sender's name; the answer goes to the name that it has from then on"},
    {ORP_MSG_SUBSCRIBE, "subscribe", "ORP_MSG_SUBSCRIBE", kProcesses, kApplication, kServer,
     Content{.data = "event type; 0x2DA00: all", .body = Body::kName}, std::nullopt, 0,
     "subscribes the named application or, without a body, the sender"},
    {ORP_MSG_UNSUBSCRIBE, "unsubscribe", "ORP_MSG_UNSUBSCRIBE", kProcesses, kApplication, kServer,
     Content{.data = "event type; 0x2DA00: all", .body = Body::kName}, std::nullopt, 0,
     "cancels such a subscription"},
    {ORP_MSG_COUNT_PROCESSES, "count-processes", "ORP_MSG_COUNT_PROCESSES", kProcesses,
     kApplication, kServer, kNameOnly, Content{.data = "their number"}, 5000,
     "how many clients have that name?"},
    {ORP_MSG_EXIT, "exit", "ORP_MSG_EXIT", kProcesses, kAnybody, kAnybody, kNameOnly, kZero, 5000,
     "to an application, without a body: exit in an orderly way, and acknowledge; to the server: "
     "ask every client of that name to exit (not answered); to the server without a name: the "
     "acknowledgement"},
    {ORP_MSG_KEEP_ALIVE, "keep-alive", "ORP_MSG_KEEP_ALIVE", kProcesses, kApplication, kServer,
     kNothing, std::nullopt, 0,
     "the sender is alive; with `--keepalive`, a client that misses three periods is logged once, "
     "and again when it is back"},
    {ORP_MSG_STOP_WATCHDOG, "stop-watchdog", "ORP_MSG_STOP_WATCHDOG", kProcesses, kApplication,
     kServer, kNothing, std::nullopt, 0,
     "expect no more keep-alives from the sender, until it sends one"},
    {ORP_MSG_FACTORY_MODE, "factory-mode", "ORP_MSG_FACTORY_MODE", kProcesses, kApplication,
     kServer, kNothing, Content{.data = "1 in the factory, else 0"}, 2000,
     "is the device in factory mode (`--factory-mode`)?"},
    {ORP_MSG_POST_SCRIPT, "post-script", "ORP_MSG_POST_SCRIPT", kApplications, kApplication, "web",
     record("first argument (256 bytes), script and NUL"), std::nullopt, 0, "runs a script"},
    {ORP_MSG_DYNAPP_UPDATE, "dynapp-update", "ORP_MSG_DYNAPP_UPDATE", kApplications, kApplication,
     kServer,
     Content{.data = "0 listens for the application, 1 stops listening and ends it, 2 ends it and "
                     "starts it anew",
             .body = Body::kName},
     std::nullopt, 0, "switches a dynamic application on or off, or restarts it"},
    {ORP_MSG_SAVE_CFG, "save-cfg", "ORP_MSG_SAVE_CFG", kConfiguration, kApplication, kServer, kUser,
     std::nullopt, 0, "writes the store through to the disk"},
    {ORP_MSG_REBOOT, "reboot", "ORP_MSG_REBOOT", kProcesses, kApplication, kServer,
     Content{.data = "mode"}, std::nullopt, 0, "is only logged; rebooting is left to the device"},
    {ORP_MSG_RESTORE_DEFAULTS, "restore-defaults", "ORP_MSG_RESTORE_DEFAULTS", kConfiguration,
     kApplication, kServer, record("two words: mode, configuration user"), std::nullopt, 0,
     "brings back the defaults"},
    {ORP_MSG_SYNC_WAIT, "sync-wait", "ORP_MSG_SYNC_WAIT", kApplications, kApplication, kServer,
     kTextOnly, kZero, 0, "waits at the synchronisation point of that name"},
    {ORP_MSG_SYNC_POST, "sync-post", "ORP_MSG_SYNC_POST", kApplications, kApplication, kServer,
     kTextOnly, std::nullopt, 0, "releases the synchronisation point of that name"},
    {ORP_MSG_EXPORT_CFG_FILE, "export-cfg-file", "ORP_MSG_EXPORT_CFG_FILE", kConfiguration,
     kApplication, kServer, kPathOnly, kStatus, 15000, "writes the store to an encrypted file"},
    {ORP_MSG_IMPORT_CFG_FILE, "import-cfg-file", "ORP_MSG_IMPORT_CFG_FILE", kConfiguration,
     kApplication, kServer, kPathOnly, kStatus, 15000, "replaces the store with an encrypted file"},
    {ORP_MSG_CHECK_CFG_FILE, "check-cfg-file", "ORP_MSG_CHECK_CFG_FILE", kConfiguration,
     kApplication, kServer, kPathOnly, kStatus, 15000, "could that file be imported?"},
    {ORP_MSG_SAVE_APPDATA_SYNC, "save-appdata-sync", "ORP_MSG_SAVE_APPDATA_SYNC", kConfiguration,
     kApplication, kServer, kNothing, kStatus, 1000, "as `save-cfg`, answered"},
    {ORP_MSG_SAVE_CFG_SYNC, "save-cfg-sync", "ORP_MSG_SAVE_CFG_SYNC", kConfiguration, kApplication,
     kServer, kNothing, kStatus, 5000, "as `save-cfg`, answered"},
    {ORP_MSG_DELETE_APPDATA, "delete-appdata", "ORP_MSG_DELETE_APPDATA", kConfiguration,
     kApplication, kServer, kNothing, kStatus, 15000,
     "brings back the defaults of application data"},
    {ORP_MSG_EXPORT_USER, "export-user", "ORP_MSG_EXPORT_USER", kConfiguration, kApplication,
     kServer, Content{.data = "user"}, std::nullopt, 0,
     "names the user for whom the client's next export is made"},
    {ORP_MSG_SAVE_CFG_TO_APP, "save-cfg-to-app", "ORP_MSG_SAVE_CFG_TO_APP", kConfiguration,
     kApplication, kServer, kUser, std::nullopt, 0, "as `save-cfg`"},
    {ORP_MSG_SAVE_CFG_TO_APP_SYNC, "save-cfg-to-app-sync", "ORP_MSG_SAVE_CFG_TO_APP_SYNC",
     kConfiguration, kApplication, kServer, kNothing, kStatus, 1000, "as `save-cfg`, answered"},
    {ORP_MSG_DYNAPP_STOP_ALL, "dynapp-stop-all", "ORP_MSG_DYNAPP_STOP_ALL", kApplications,
     kApplication, kServer, kNothing, kZero, 20000,
     "ends all dynamic applications; answered when the last one has ended"},
    {ORP_LCTRL_MSG_LOGIN, "login-attempt", "ORP_LCTRL_MSG_LOGIN", kLogin, kApplication, kServer,
     record("ORP_LCTRL_REQUEST_ST"), record("ORP_LCTRL_RESULT_ST"), 4000, "how an attempt ended"},
    {ORP_LCTRL_MSG_CHECK, "login-check", "ORP_LCTRL_MSG_CHECK", kLogin, kApplication, kServer,
     record("ORP_LCTRL_REQUEST_ST"), record("ORP_LCTRL_RESULT_ST"), 4000, "may this client try?"},
    {ORP_LCTRL_MSG_SET_MAX_FAILED, "login-set-limit", "ORP_LCTRL_MSG_SET_MAX_FAILED", kLogin,
     kApplication, kServer, record("ORP_LCTRL_LIMIT_ST"), std::nullopt, 0,
     "failures before a client is forbidden, and for how long"},
    {ORP_LCTRL_MSG_CLEAR_FORBIDDEN, "login-clear", "ORP_LCTRL_MSG_CLEAR_FORBIDDEN", kLogin,
     kApplication, kServer, record("one word: 0, or a client's IPv4 address"), std::nullopt, 0,
     "forgets everybody, or that client"},
    {ORP_LCTRL_MSG_GET_ROUND, "login-round", "ORP_LCTRL_MSG_GET_ROUND", kLogin, kApplication,
     kServer, record("ORP_LCTRL_QUERY_ST"), record("ORP_LCTRL_ROUND_ST"), 4000,
     "how often, and for how long, is a client forbidden?"},
    {ORP_MSG_ALL_EVENTS, "event", "ORP_MSG_ALL_EVENTS", kEvents, kApplication, "subscribers",
     kEventBody, std::nullopt, 0, "an event; in a subscription its first type stands for all",
     (ORP_MSG_EVENT_PAGE << 8) | 0xff},
    event(ORP_MSG_EVENT_DEVICE, "event-device", "ORP_MSG_EVENT_DEVICE", "module \"device\""),
    event(ORP_MSG_EVENT_MONITOR, "event-monitor", "ORP_MSG_EVENT_MONITOR", "module \"monitor\""),
    event(ORP_MSG_EVENT_PLUGIN_QUEUES, "event-plugin-queues", "ORP_MSG_EVENT_PLUGIN_QUEUES",
          "module \"plugin_queues\""),
    event(ORP_MSG_EVENT_TRACKING, "event-tracking", "ORP_MSG_EVENT_TRACKING",
          "module \"event_tracking\""),
    event(ORP_MSG_EVENT_TESSEL, "event-tessel", "ORP_MSG_EVENT_TESSEL", "module \"tessel\""),
    event(ORP_MSG_EVENT_AUTO_UPDATE, "event-auto-update", "ORP_MSG_EVENT_AUTO_UPDATE",
          "module \"autoUpdate\""),
    event(ORP_MSG_EVENT_NETWORK, "event-network", "ORP_MSG_EVENT_NETWORK", "module \"network\""),
    event(ORP_MSG_EVENT_TESSEL_PROXY, "event-tessel-proxy", "ORP_MSG_EVENT_TESSEL_PROXY",
          "module \"tesselproxy\""),
    event(ORP_MSG_EVENT_FEED, "event-feed", "ORP_MSG_EVENT_FEED", "module \"feed\""),
    event(ORP_MSG_EVENT_SIGNAL, "event-signal", "ORP_MSG_EVENT_SIGNAL", "module \"signal\""),
    event(ORP_MSG_EVENT_WAN, "event-wan", "ORP_MSG_EVENT_WAN", "module \"wan\""),
    event(ORP_MSG_EVENT_LAN, "event-lan", "ORP_MSG_EVENT_LAN", "module \"lan\""),
    event(ORP_MSG_EVENT_WLAN, "event-wlan", "ORP_MSG_EVENT_WLAN", "module \"wlan\""),
    event(ORP_MSG_EVENT_DHCP, "event-dhcp", "ORP_MSG_EVENT_DHCP", "module \"dhcp\""),
    event(ORP_MSG_EVENT_WEB, "event-web", "ORP_MSG_EVENT_WEB", "module \"web\""),
    event(ORP_MSG_EVENT_WEBCONSOLE, "event-webconsole", "ORP_MSG_EVENT_WEBCONSOLE",
          "module \"webconsole\""),
    event(ORP_MSG_EVENT_ONLINE_UPDATE, "event-online-update", "ORP_MSG_EVENT_ONLINE_UPDATE",
          "module \"online_update\""),
    event(ORP_MSG_EVENT_USB, "event-usb", "ORP_MSG_EVENT_USB", "module \"usb\""),
    event(ORP_MSG_EVENT_BEHAVIOR, "event-behavior", "ORP_MSG_EVENT_BEHAVIOR",
          "module \"behavior\""),
};

static_assert(std::ranges::adjacent_find(kTypes, std::ranges::greater_equal{},
                                         &MessageType::number) == std::end(kTypes),
              "each number once, in ascending order");

constexpr std::string_view kBodyWords[] = {"none",  "name",    "text",   "items",
                                           "event", "restful", "record", "path"};

std::optional<uint32_t> parse_number(std::string_view text) {
  const bool is_hex = text.starts_with("0x") || text.starts_with("0X");
  if (is_hex) text.remove_prefix(2);
  const char *end = text.data() + text.size();
  uint32_t number = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, number, is_hex ? 16 : 10);
  if (error != std::errc() || stop != end || number > ORP_MSG_TYPE_MASK) return std::nullopt;
  return number;
}

}  // namespace

std::span<const MessageType> message_types() {
  return kTypes;
}

const MessageType *find(uint32_t type, std::span<const MessageType> types) {
  type &= ORP_MSG_TYPE_MASK;
  const MessageType *range = nullptr;
  for (const MessageType &known : types) {
    if (known.number == type) return &known;
    if (known.number < type && type <= known.last) range = &known;
  }
  return range;
}

std::string describe(uint32_t type, std::span<const MessageType> types) {
  char number[16];
  std::snprintf(number, sizeof number, "0x%x", type & ORP_MSG_TYPE_MASK);
  const MessageType *known = find(type, types);
  return known == nullptr ? number : std::string(known->name) + " (" + number + ")";
}

std::optional<uint32_t> number_of(std::string_view text, std::span<const MessageType> types) {
  for (const MessageType &known : types) {
    if (text == known.name || (!text.empty() && text == known.constant)) return known.number;
  }
  return parse_number(text);
}

std::string_view body_word(Body body) {
  return kBodyWords[static_cast<size_t>(body)];
}

std::optional<Body> body_of(std::string_view word) {
  for (size_t i = 0; i < std::size(kBodyWords); ++i) {
    if (word == kBodyWords[i]) return static_cast<Body>(i);
  }
  return std::nullopt;
}

}  // namespace catalogue
