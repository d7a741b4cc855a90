// Accounts of the web interface and its set-up guide, as the configuration store has them.

#include <cstdio>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include "base/memory.h"
#include "base/text.h"
#include "cfmapi.h"
#include "msgapi/web.h"

namespace msgapi::device {
namespace {

constexpr uint32_t kBadArgument = 0x30000;
constexpr uint32_t kNoSuchAccount = 1;

constexpr uint32_t kCurrentUserName = 0x40A2230B;
constexpr uint32_t kWebUsers = 0xA8622400;
constexpr uint32_t kLevel = 0xA9A02404;
constexpr uint32_t kFirstLogin = 0xE2222406;
constexpr uint32_t kForceGuide = 0x62211704;
constexpr uint32_t kGuideStatus = 0x61A0B20F;
constexpr uint32_t kSoftwareVersion = 0x80000337;

// The first-login rule looks at the first account of this level.
constexpr uint32_t kFirstLoginLevel = 2;

constexpr std::string_view kGuideFreeVersion = "K7210-402-CUST 10.0.5.1(C233)";

struct Accounts {
  Owned<ORP_DB_KEY_ST> keys;
  uint32_t count;

  std::span<const ORP_DB_KEY_ST> all() const { return {keys.get(), count}; }
};

uint32_t list_accounts(Accounts *out) {
  ORP_DB_KEY_ST *keys = nullptr;
  out->count = 0;
  const uint32_t status = ORP_DBGetNumOfObjs(kWebUsers, &out->count, &keys);
  out->keys.reset(keys);
  return status;
}

std::optional<uint32_t> read_number(const ORP_DB_KEY_ST *key, uint32_t parameter) {
  uint32_t value = 0;
  if (ORP_DBGetPara(key, parameter, &value, sizeof value) != 0) return std::nullopt;
  return value;
}

// The level of the account if it has that name. None for an account that is gone by now.
std::optional<uint32_t> level_if_named(const ORP_DB_KEY_ST &key, std::string_view name) {
  void *record = nullptr;
  if (ORP_DBGetObj(&key, &record) != 0 || record == nullptr) return std::nullopt;
  auto *user = static_cast<ORP_WEB_USERINFO_ST *>(record);
  std::optional<uint32_t> level;
  if (user->pcUserName != nullptr && user->pcUserName == name) {
    level = static_cast<uint32_t>(user->ulUserLevel);
  }
  ORP_WEB_Free_UserInfoObj(user);
  return level;
}

uint32_t current_level(uint32_t *out) {
  char name[68] = "";
  uint32_t status = ORP_DBGetPara(nullptr, kCurrentUserName, name, sizeof name);
  if (status != 0) return status;
  Accounts accounts;
  status = list_accounts(&accounts);
  if (status != 0) return status;
  if (accounts.count == 0) return 0;

  for (const ORP_DB_KEY_ST &key : accounts.all()) {
    if (const std::optional<uint32_t> level = level_if_named(key, field_text(name))) {
      *out = *level;
      return 0;
    }
  }
  return kNoSuchAccount;
}

bool first_login_is_done() {
  Accounts accounts;
  if (list_accounts(&accounts) != 0) return false;
  for (const ORP_DB_KEY_ST &key : accounts.all()) {
    const std::optional<uint32_t> level = read_number(&key, kLevel);
    if (!level) return false;
    if (*level != kFirstLoginLevel) continue;
    const std::optional<uint32_t> flag = read_number(&key, kFirstLogin);
    return flag && *flag != 1;
  }
  return true;
}

bool is_guide_free_version() {
  char version[32] = "";
  return ORP_APPDATA_ReadEquip(kSoftwareVersion, version, sizeof version) == 0 &&
         begins_with(field_text(version), kGuideFreeVersion);
}

bool guide_is_forced() {
  if (!is_guide_free_version()) return read_number(nullptr, kForceGuide) == 1u;
  const uint32_t off = 0;
  ORP_DBSetPara(nullptr, kForceGuide, &off, sizeof off);
  return false;
}

bool is_in_guide() {
  return read_number(nullptr, kGuideStatus) == 1u;
}

}  // namespace
}  // namespace msgapi::device

using namespace msgapi;
using namespace msgapi::device;

extern "C" uint32_t ORP_WEB_GetCurAccountLevel(uint32_t *levelOut) {
  return levelOut == nullptr ? kBadArgument : current_level(levelOut);
}

extern "C" uint32_t ORP_WEB_CheckFirstLogin() {
  return first_login_is_done() ? 1 : 0;
}

extern "C" uint32_t ORP_WEB_IsSpecifiedIniVersion() {
  return is_guide_free_version() ? 1 : 0;
}

extern "C" uint32_t ORP_WEB_ForceGuideIsEnabled() {
  return guide_is_forced() ? 1 : 0;
}

extern "C" uint32_t ORP_WEB_IsGuideStatus() {
  return is_in_guide() ? 1 : 0;
}

extern "C" uint32_t ORP_WEB_IsSkipCheckPwd() {
  if (!guide_is_forced() || !is_in_guide()) return 0;
  std::printf("the login password is not verified during the force guide.");
  return 1;
}
