/*
 * Fixed answers about the features of this build, one-line requests to the message server, and the
 * hooks of software upgrades.
 */
#ifndef MSGAPI_DEVICE_H
#define MSGAPI_DEVICE_H

#include <stdint.h>

#include "msgapi/export.h"

/*
 * Feature switches: 1 when the feature exists in this build or is enabled, 0 when not. The answers
 * are constants; nothing is read.
 */
MSGAPI_EXPORT uint32_t ORP_WEB_CheckWebUi(void);
MSGAPI_EXPORT uint32_t ORP_IsRepeaterProduct(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportXlinkFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportElinkFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportElinkV2Feature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportWolinkFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportAndlinkFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportAndlinkV2Feature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportUplinkWpsFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportTestWifiEncryptFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportApListFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportWpsPinFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportPDFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportDevReportFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportElinkOrXlinkFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportUrlFltWhiteListFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportMacFltWhiteListFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportIgmpFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportIptvFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportVlanPassThroughFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportEmptyMacFilterFeature(void);
MSGAPI_EXPORT uint32_t ORP_CheckAndlinkEnable(void);
MSGAPI_EXPORT uint32_t ORP_IsCustomVersion(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportNpsEnable(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportSmartOsFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportCteiFeature(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportDnsRedirect(void);
MSGAPI_EXPORT uint32_t ORP_IsSupportGuideStartLoginFeature(void);

/* Hooks of operator protocols that this build does not have: they do nothing. */
MSGAPI_EXPORT void ORP_ElinkSetStatus(uint32_t status);
MSGAPI_EXPORT void ORP_GetElinkController(char *controller, uint32_t size);

/* Requests that do not wait; the status of ORP_MSG_Send. */

/* Tells the watchdog, through the server, that the process is alive. */
MSGAPI_EXPORT uint32_t ORP_APP_SendSysguardHeartBeat(void);
/* Asks to stop the watchdog. */
MSGAPI_EXPORT uint32_t ORP_APP_StopSysguard(void);
/* Asks the server to reboot the device in the way that `mode` names. */
MSGAPI_EXPORT uint32_t ORP_UTIL_Reboot(uint32_t mode);

/* The server's answer whether the device is in factory mode; waits up to 2 s. 0 without one. */
MSGAPI_EXPORT uint32_t ORP_APP_IsFactoryMode(void);

/* Frees memory before an upgrade is downloaded (ZotaUpgFreeSpecificMem); always 1. */
MSGAPI_EXPORT uint32_t ORP_UPG_PreDownloadProtect(uint32_t first, uint32_t second);
/* Undoes that (ZotaUpgRestartSpecificProc); always 1. */
MSGAPI_EXPORT uint32_t ORP_UPG_ReleaseAllProtect(void);
/* What these two do on a device; empty in this build. */
MSGAPI_EXPORT void ZotaUpgFreeSpecificMem(void);
MSGAPI_EXPORT void ZotaUpgRestartSpecificProc(void);

#endif
