#include "notify/modules.h"

#include "msgapi/notify.h"
#include "orputil.h"

namespace msgapi::notify {
namespace {

constexpr ORP_STR_IDX kModules[] = {
    {"cms", 8},           {"syswatch", 20},      {"pdp", 56},       {"web", 26},
    {"global", 27},       {"tts", 68},           {"sms", 1},        {"atserver", 31},
    {"recorder", 79},     {"ussd", 2},           {"stk", 33},       {"xmodemupg", 64},
    {"dialup", 4},        {"led", 35},           {"ipstack", 61},   {"phonebook", 6},
    {"oled", 14},         {"crh", 103},          {"net", 7},        {"diagnosis", 49},
    {"chrprotocol", 106}, {"device", 9},         {"bip", 45},       {"koclient", 99},
    {"sim", 10},          {"atnlproxy", 58},     {"cloudeng", 108}, {"statistics", 18},
    {"status", 19},       {nullptr, UINT32_MAX},
};

// Deliberately only these two start a client by name.
constexpr ORP_STR_IDX kClients[] = {{"cms", 8}, {"web", 26}, {nullptr, UINT32_MAX}};

uint32_t find_id(const ORP_STR_IDX *table, const char *name) {
  const uint32_t id = ORP_UTIL_StrIdxArrayGetIdxByStr(table, name);
  return is_module_id(id) ? id : 0;
}

}  // namespace

bool is_module_id(uint32_t id) {
  return id > 0 && id < ORP_NOTIFYCLT_MODULES;
}

uint32_t client_id(const char *name) {
  return find_id(kClients, name);
}

}  // namespace msgapi::notify

using namespace msgapi::notify;

extern "C" uint32_t ORP_NOTIFYCLT_GetMIDByName(const char *name) {
  return find_id(kModules, name);
}

extern "C" const char *ORP_NOTIFYCLT_GetNameByMID(uint32_t moduleId) {
  return ORP_UTIL_StrIdxArrayGetStrByIdx(kModules, moduleId);
}
