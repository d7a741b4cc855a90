// The feature set of this build.

#include "msgapi/device.h"

extern "C" uint32_t ORP_WEB_CheckWebUi() {
  return 1;
}

extern "C" uint32_t ORP_IsRepeaterProduct() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportXlinkFeature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportElinkFeature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportElinkV2Feature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportWolinkFeature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportAndlinkFeature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportAndlinkV2Feature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportUplinkWpsFeature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportTestWifiEncryptFeature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportApListFeature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportWpsPinFeature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportPDFeature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportDevReportFeature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportElinkOrXlinkFeature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportUrlFltWhiteListFeature() {
  return 1;
}

extern "C" uint32_t ORP_IsSupportMacFltWhiteListFeature() {
  return 1;
}

extern "C" uint32_t ORP_IsSupportIgmpFeature() {
  return 1;
}

extern "C" uint32_t ORP_IsSupportIptvFeature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportVlanPassThroughFeature() {
  return 1;
}

extern "C" uint32_t ORP_IsSupportEmptyMacFilterFeature() {
  return 0;
}

extern "C" uint32_t ORP_CheckAndlinkEnable() {
  return 0;
}

extern "C" uint32_t ORP_IsCustomVersion() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportNpsEnable() {
  return 1;
}

extern "C" uint32_t ORP_IsSupportSmartOsFeature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportCteiFeature() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportDnsRedirect() {
  return 0;
}

extern "C" uint32_t ORP_IsSupportGuideStartLoginFeature() {
  return 0;
}

extern "C" void ORP_ElinkSetStatus(uint32_t /*status*/) {}

extern "C" void ORP_GetElinkController(char * /*controller*/, uint32_t /*size*/) {}
