// Texts of the configuration store: stored addresses and the version of the privacy notice.

#include <cstdio>
#include <cstring>

#include "base/status.h"
#include "base/text.h"
#include "cfmapi.h"
#include "msgapi/web.h"

namespace msgapi::device {
namespace {

constexpr uint32_t kPrivacyVersion = 0x60A01901;
constexpr uint32_t kPrivacyHandled = 271;
constexpr char kFirstPrivacyVersion[] = "2016-10";

constexpr size_t kTextSize = 68;

// Parameters by address number; 0 is none.
struct StoredAddress {
  uint32_t number;
  uint32_t parameter;
};
constexpr StoredAddress kAddresses[] = {{7, 0x00C01901}, {8, 0}};

uint32_t store_text(uint32_t parameter, const char *value) {
  char stored[kTextSize] = "";
  uint32_t status = ORP_DBGetPara(nullptr, parameter, stored, sizeof stored);
  if (status != 0) std::printf("DBGetPara ERROR return [%u]\n", status);
  if (field_text(stored) == value) return 0;

  status = ORP_DBSetPara(nullptr, parameter, value, static_cast<uint32_t>(std::strlen(value) + 1));
  if (status != 0) std::printf("ORP_DBSetPara ERROR return [%u]\n", status);
  return status;
}

bool privacy_notice_is_open() {
  uint8_t handled = 1;
  return ORP_APPDATA_ReadAppData(kPrivacyHandled, &handled, sizeof handled) == 0 && handled == 0;
}

}  // namespace
}  // namespace msgapi::device

using namespace msgapi;
using namespace msgapi::device;

extern "C" uint32_t ORP_URLSTORE_GetUrl(uint32_t urlNumber, char *buffer, uint32_t bufferSize) {
  if (buffer == nullptr) return code(Status::kBadArgument);
  for (const StoredAddress &address : kAddresses) {
    if (address.number != urlNumber || address.parameter == 0) continue;
    return ORP_DBGetPara(nullptr, address.parameter, buffer, bufferSize);
  }
  return code(Status::kSystem);
}

extern "C" uint32_t SetCHARParamToDB(uint32_t parameter, const char *value) {
  if (value == nullptr) {
    std::printf("Mic_SetCHARParamToDB pszInvalue NULL");
    return 1;
  }
  return store_text(parameter, value);
}

extern "C" uint32_t DeviceGDPRcheckfirststatus() {
  return privacy_notice_is_open() ? 1 : 0;
}

extern "C" uint32_t DeviceGDPRfirestVersion() {
  char version[kTextSize] = "";
  const uint32_t status = ORP_DBGetPara(nullptr, kPrivacyVersion, version, sizeof version);
  if (status != 0) return status;
  if (version[0] != '\0' || !privacy_notice_is_open()) return 0;
  return store_text(kPrivacyVersion, kFirstPrivacyVersion);
}
