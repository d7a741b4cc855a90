/*
 * The type of every exported name, once more. A program compiled against one version of the library
 * runs with the next only if these stay as they are: a declaration in a public header that differs
 * from the one here does not compile (tests/abi). Sorted as exports.txt; a change is a new version
 * of the interface.
 */
#ifndef MSGAPI_PROTOTYPES_H
#define MSGAPI_PROTOTYPES_H

#include "msgapi.h"

uint32_t CL_ByteOrderToWideChar(const uint8_t *bytes, uint32_t count, uint16_t *units,
                                uint32_t *size);
uint32_t CL_BytesToString(const uint8_t *bytes, uint32_t count, char *text, uint32_t *size);
uint32_t CL_StringToBytes(const char *text, uint32_t count, uint8_t *bytes, uint32_t *size);
uint32_t CL_StringToNumeric(const char *text, uint32_t count, uint32_t base, uint32_t *value);
uint32_t CL_Ucs2ToUtf8(const uint16_t *units, uint32_t count, char *text, uint32_t *size);
uint32_t CL_Ucs2ToUtf8ByLen(const uint16_t *units, uint32_t count, char *text, uint32_t size);
uint32_t CL_Utf8ToUcs2(const char *text, uint32_t count, uint16_t *units, uint32_t *size);
uint32_t CL_WideCharToByteOrder(const uint8_t *units, uint32_t count, uint8_t *bytes,
                                uint32_t *size);
uint32_t DeviceGDPRcheckfirststatus(void);
uint32_t DeviceGDPRfirestVersion(void);
char *GetAucAppNamePointer(void);
extern const int32_t MLOG_NEW_FILE_FLAG;
int32_t MlogBlurIpv6String(char *buf, uint32_t len);
int32_t MlogBlurString(char *buf, uint32_t len);
void MlogFileClose(int32_t fd);
MlogFile *MlogFileConstructor(const char *path, uint32_t maxFileSize);
void MlogFileDestructor(MlogFile *file);
int32_t MlogFileOpen(const char *path);
int32_t MlogFileWrite(MlogTarget *target, char *buf, uint32_t size);
int32_t MlogFlushLog(void);
uint32_t MlogGetLogLevel(const char *name);
const char *MlogGetLogLevelString(uint32_t level);
int32_t MlogGetStatInfo(const char *module, char *buf, uint32_t bufSize);
int32_t MlogNetlinkOpen(int32_t *fdOut);
int32_t MlogNetlinkReceive(int32_t fd, void *buf, uint32_t bufSize);
int32_t MlogNetlinkSend(int32_t fd, const void *data, uint32_t size);
void MlogPrint(const char *module, uint32_t level, const char *format, ...);
void MlogPrintWithType(uint32_t printType, const char *module, uint32_t level, const char *format,
                       ...);
int32_t MlogRecvMsg(int32_t fd, MlogMsg *msg, uint32_t timeoutSec, char *peerNameBuf,
                    uint32_t peerNameSize);
int32_t MlogSendMsg(int32_t fd, const MlogMsg *msg, const char *serverName);
int32_t MlogSendRecvMsg(int32_t fd, const MlogMsg *sendMsg, MlogMsg *recvMsg, uint32_t timeoutSec,
                        const char *serverName);
int32_t MlogSetStatInfo(const char *module, const char *info);
int32_t MlogSocketClose(int32_t fd, const char *name);
int32_t MlogSocketOpen(const char *name, int32_t *fdOut);
int32_t MlogUseSharePartion(void);
uint32_t ORP_APP_IsFactoryMode(void);
uint32_t ORP_APP_SendSysguardHeartBeat(void);
uint32_t ORP_APP_StopSysguard(void);
uint32_t ORP_AppSaveSyncFunc(void);
void ORP_BASE_Init(const char *appName);
uint32_t ORP_BLUR_File(const char *path);
const char *ORP_BLUR_Ip(const char *str);
const char *ORP_BLUR_Ipv4Byte(struct in_addr addr);
const char *ORP_BLUR_Ipv6(const char *str);
const char *ORP_BLUR_Mac(const char *str);
const char *ORP_BLUR_MacByte(const uint8_t *mac);
const char *ORP_BLUR_Ssid(const char *ssid);
const char *ORP_BLUR_UsbAccount(const char *name);
const char *ORP_BLUR_Uuid(const char *str);
uint32_t ORP_CFM_DelAppdata(void);
uint32_t ORP_CFM_ExtExportEncCfgFileByUser(const char *path, uint32_t user);
uint32_t ORP_CFM_ExtExportEncryptedCfgFile(const char *path);
uint32_t ORP_CFM_ExtImportEncryptedCfgFile(const char *path);
uint32_t ORP_CFM_ExtReboot(uint32_t mode);
uint32_t ORP_CFM_ExtRestoreDft(uint32_t mode);
uint32_t ORP_CheckAndlinkEnable(void);
uint32_t ORP_DBCheckFile(const char *path);
uint32_t ORP_DBSaveFunc(void);
uint32_t ORP_DBSaveSyncFunc(void);
uint32_t ORP_DBSaveToAppFunc(void);
uint32_t ORP_DBSaveToAppSyncFunc(void);
uint32_t ORP_DB_CheckFile(const char *path);
uint32_t ORP_DB_SaveFunc(void);
uint32_t ORP_DB_SaveSyncFunc(void);
uint32_t ORP_DB_SaveToAppFunc(void);
uint32_t ORP_DB_SaveToAppSyncFunc(void);
uint32_t ORP_DMMSG_AppendItem(void **bodyInOut, uint32_t itemType, const char *name,
                              const void *value, uint32_t valueLength);
uint32_t ORP_DMMSG_Builder(void **bodyOut, const char *dstApp, uint32_t subType);
void ORP_DMMSG_Free(void *body);
uint32_t ORP_DMMSG_GetErrCode(const void *body);
uint32_t ORP_DMMSG_GetItemEx(const void *body, ORP_DMMSG_ITEM_ST *itemOut,
                             const void **cursorInOut);
uint32_t ORP_DMMSG_GetSubType(const void *body);
uint32_t ORP_DMMSG_Send(void *body);
ORP_DNS_PACKET_ST *ORP_DNS_IpTypeMismatchResponse(const ORP_DNS_PACKET_ST *query);
ORP_DNS_PACKET_ST *ORP_DNS_PacketBuildErrorResponse(const ORP_DNS_PACKET_ST *query,
                                                    uint32_t response_code);
ORP_DNS_PACKET_ST *ORP_DNS_PacketBuildRequest(const char *name);
ORP_DNS_PACKET_ST *ORP_DNS_PacketBuildResponse(const ORP_DNS_PACKET_ST *query,
                                               const ORP_DNS_RR_ST *record, uint32_t cached_at);
uint32_t ORP_DNS_PacketCheckIfErrorRely(const ORP_DNS_PACKET_ST *reply);
ORP_DNS_PACKET_ST *ORP_DNS_PacketCopy(const ORP_DNS_PACKET_ST *packet, uint32_t max_length);
const uint8_t *ORP_DNS_PacketGetFirstAddtionalRecord(const ORP_DNS_PACKET_ST *packet);
const uint8_t *ORP_DNS_PacketGetFirstAuthorityRecord(const ORP_DNS_PACKET_ST *packet);
const uint8_t *ORP_DNS_PacketGetFirstRR(const ORP_DNS_PACKET_ST *packet);
uint32_t ORP_DNS_PacketGetName(const ORP_DNS_PACKET_ST *packet, const uint8_t *position, char *text,
                               uint32_t size, uint32_t *consumed);
uint32_t ORP_DNS_PacketGetNameLen(const ORP_DNS_PACKET_ST *packet, const uint8_t *position);
const uint8_t *ORP_DNS_PacketGetNextRR(const ORP_DNS_PACKET_ST *packet, const uint8_t *position);
uint32_t ORP_DNS_PacketGetQuestionLen(const ORP_DNS_PACKET_ST *packet, const uint8_t *position);
uint32_t ORP_DNS_PacketGetRRLen(const ORP_DNS_PACKET_ST *packet, const uint8_t *position);
uint32_t ORP_DNS_PacketGetValuesOfQuestion(const ORP_DNS_PACKET_ST *packet, const uint8_t *position,
                                           ORP_DNS_RR_ST *record, uint32_t *consumed);
uint32_t ORP_DNS_PacketGetValuesOfRR(const ORP_DNS_PACKET_ST *packet, const uint8_t *position,
                                     ORP_DNS_RR_ST *record, uint32_t *consumed);
uint32_t ORP_DNS_PacketPTRName2Addr(const char *name, char *address, uint32_t size,
                                    uint32_t *is_ipv4);
uint32_t ORP_EVT_BuiderJsonProc(struct cJSON **payloadHolder, const char *name, const char *value);
uint32_t ORP_EVT_EndJsonEndProc(void **objectInOut, struct cJSON *payload);
void ORP_EVT_GetEventBody(ORP_MSG_HEADER_ST *message, void **bodyOut);
uint32_t ORP_EVT_GetEventContent(const ORP_MSG_HEADER_ST *message, char **textOut,
                                 uint32_t *lengthOut);
const char *ORP_EVT_GetEventModuleNameByEventType(uint32_t type);
uint32_t ORP_EVT_GetMsgTypeByEventModuleName(const char *name);
uint32_t ORP_EVT_JsonBeginProc(struct cJSON **objectInOut, const char *module,
                               const char *eventType);
uint32_t ORP_EVT_PublishEvent(uint32_t msgType, const char *eventType, const char *name,
                              const char *value);
uint32_t ORP_EVT_PublishEventWithJson(const char *moduleName, const char *eventType,
                                      uint32_t msgType, const struct cJSON *payload);
uint32_t ORP_EVT_PublishEventWithNVPair(uint32_t msgType, const char *eventType,
                                        const ORP_UTIL_NV_PAIR_ST *pairs);
uint32_t ORP_EVT_SubscribeAllEvent(void);
void ORP_EVT_SubscribeAllEventCallBack(ORP_EVT_CALLBACK callback);
void ORP_EVT_SubscribeSingelEventCallBack(uint32_t eventType, ORP_EVT_CALLBACK callback);
void ORP_ElinkSetStatus(uint32_t status);
void ORP_Evt_SubMsgProc(ORP_MSG_HEADER_ST *message);
uint32_t ORP_GenerateJsonItem(struct cJSON *object, const char *name, const char *value);
void ORP_GetElinkController(char *controller, uint32_t size);
uint32_t ORP_IsCustomVersion(void);
uint32_t ORP_IsRepeaterProduct(void);
uint32_t ORP_IsSupportAndlinkFeature(void);
uint32_t ORP_IsSupportAndlinkV2Feature(void);
uint32_t ORP_IsSupportApListFeature(void);
uint32_t ORP_IsSupportCteiFeature(void);
uint32_t ORP_IsSupportDevReportFeature(void);
uint32_t ORP_IsSupportDnsRedirect(void);
uint32_t ORP_IsSupportElinkFeature(void);
uint32_t ORP_IsSupportElinkOrXlinkFeature(void);
uint32_t ORP_IsSupportElinkV2Feature(void);
uint32_t ORP_IsSupportEmptyMacFilterFeature(void);
uint32_t ORP_IsSupportGuideStartLoginFeature(void);
uint32_t ORP_IsSupportIgmpFeature(void);
uint32_t ORP_IsSupportIptvFeature(void);
uint32_t ORP_IsSupportMacFltWhiteListFeature(void);
uint32_t ORP_IsSupportNpsEnable(void);
uint32_t ORP_IsSupportPDFeature(void);
uint32_t ORP_IsSupportSmartOsFeature(void);
uint32_t ORP_IsSupportTestWifiEncryptFeature(void);
uint32_t ORP_IsSupportUplinkWpsFeature(void);
uint32_t ORP_IsSupportUrlFltWhiteListFeature(void);
uint32_t ORP_IsSupportVlanPassThroughFeature(void);
uint32_t ORP_IsSupportWolinkFeature(void);
uint32_t ORP_IsSupportWpsPinFeature(void);
uint32_t ORP_IsSupportXlinkFeature(void);
uint32_t ORP_LCTRLAPI_Check(const void *request, void *result);
uint32_t ORP_LCTRLAPI_ClearForbiddenList(uint32_t value);
uint32_t ORP_LCTRLAPI_GetForbiddenRound(const void *query, void *round);
uint32_t ORP_LCTRLAPI_Login(const void *request, void *result);
uint32_t ORP_LCTRLAPI_LoginWaitTime(void);
uint32_t ORP_LCTRLAPI_SetMaxFailedTimes(const void *limit);
uint32_t ORP_M2M_ValidatePath(const char *path, uint32_t type);
uint32_t ORP_MSG_AppendQueue(ORP_MSG_QUEUE_NODE_ST **head, ORP_MSG_HEADER_ST *message);
uint32_t ORP_MSG_AppendQueueEx(ORP_MSG_QUEUE_NODE_ST **head, ORP_MSG_HEADER_ST *message,
                               ORP_WORD extra);
uint32_t ORP_MSG_AsyncSendAndReceive(ORP_MSG_HEADER_ST *request, uint32_t timeoutMs,
                                     ORP_WORD userData, ORP_MSG_ANSWER_PROC callback);
uint32_t ORP_MSG_BodyNeedEndianSwap(const ORP_MSG_HEADER_ST *message);
ORP_MSG_HEADER_ST *ORP_MSG_BuildRestfulReqMsg(uint32_t code, uint32_t second, const char *path,
                                              const char *handlerName, const char *text,
                                              uint32_t textLength);
void ORP_MSG_DefaultMsgProc(ORP_MSG_HEADER_ST *message);
void ORP_MSG_DefaultMsgProcs(ORP_MSG_HEADER_ST *message);
void ORP_MSG_Destroy(void);
void ORP_MSG_DestroyQueue(ORP_MSG_QUEUE_NODE_ST **head);
ORP_MSG_HEADER_ST *ORP_MSG_Duplicate(const ORP_MSG_HEADER_ST *message);
void ORP_MSG_FilterProc(ORP_MSG_HEADER_ST *message);
uint32_t ORP_MSG_GetAndDispatch(void);
void *ORP_MSG_GetMsgBlock(uint32_t bodyLen);
void *ORP_MSG_GetMsgBlockEx(void *buffer, uint32_t bufferLen);
void *ORP_MSG_GetMsgByHeader(ORP_MSG_HEADER_ST *header);
ORP_MSG_HEADER_ST *ORP_MSG_GetMsgHead(void *body);
uint32_t ORP_MSG_GetNumOfProcesses(const char *appName);
const char *ORP_MSG_GetVersion(void);
void ORP_MSG_HeadEndianSwap(ORP_MSG_HEADER_ST *header);
uint32_t ORP_MSG_Init(const char *appName);
uint32_t ORP_MSG_InitSlaveApp(const char *appName, const char *serverAddress, uint16_t port);
uint32_t ORP_MSG_InitWithoutHandle(const char *appName);
ORP_MSG_HEADER_ST *ORP_MSG_MsgRespBuilder(const ORP_MSG_HEADER_ST *request, uint32_t data,
                                          const void *body, uint32_t bodyLen);
uint32_t ORP_MSG_OrpSyncPost(const char *name);
uint32_t ORP_MSG_OrpSyncWait(const char *name, uint32_t timeoutMs);
void ORP_MSG_QueueClear(void);
uint32_t ORP_MSG_ReceiveManual(ORP_MSG_HEADER_ST **messageOut, uint32_t timeoutMs);
uint32_t ORP_MSG_ReceiveWithEndian(int32_t descriptor, ORP_MSG_HEADER_ST **messageOut,
                                   uint32_t timeoutMs, uint32_t convert);
uint32_t ORP_MSG_ReceiveWithType(uint32_t type, ORP_MSG_HEADER_ST **messageOut, uint32_t timeoutMs);
uint32_t ORP_MSG_Recv(int32_t descriptor, ORP_MSG_HEADER_ST **messageOut, uint32_t timeoutMs);
uint32_t ORP_MSG_RecvFd(int32_t *descriptorOut, uint32_t timeoutMs);
uint32_t ORP_MSG_RecvResWithAppName(const ORP_MSG_HEADER_ST *request,
                                    ORP_MSG_HEADER_ST **responseOut, uint32_t timeoutMs);
uint32_t ORP_MSG_RecvResp(const ORP_MSG_HEADER_ST *request, ORP_MSG_HEADER_ST **responseOut,
                          uint32_t timeoutMs);
uint32_t ORP_MSG_RegMsgProc(uint32_t type, ORP_MSG_PROC messageProcedure, uint32_t priority,
                            ORP_MSG_REG_HANDLE *handleOut);
uint32_t ORP_MSG_RegMsgProcEx(uint32_t type, ORP_MSG_PROC messageProcedure,
                              ORP_MSG_SYNC_PROC syncProcedure, uint32_t priority,
                              ORP_MSG_REG_HANDLE *handleOut);
uint32_t ORP_MSG_RegRestfulProc(const char *path, const ORP_MSG_RESTFUL_ROW_ST *table);
uint32_t ORP_MSG_RegRestfulProcEx(const char *path, const ORP_MSG_RESTFUL_ROW_ST *table,
                                  uint32_t expand);
void ORP_MSG_RegisterMsgProc(ORP_MSG_PROC procedure);
uint32_t ORP_MSG_RegisterSyncMsgProc(uint32_t type, ORP_MSG_SYNC_PROC syncProcedure,
                                     uint32_t priority, ORP_MSG_REG_HANDLE *handleOut);
uint32_t ORP_MSG_SafeExitProcesses(const char *appName);
uint32_t ORP_MSG_Send(ORP_MSG_HEADER_ST *message);
uint32_t ORP_MSG_SendAndReceiveWithAppName(ORP_MSG_HEADER_ST *request,
                                           ORP_MSG_HEADER_ST **responseOut, uint32_t timeoutMs);
uint32_t ORP_MSG_SendAndRecv(ORP_MSG_HEADER_ST *request, ORP_MSG_HEADER_ST **responseOut,
                             uint32_t timeoutMs);
uint32_t ORP_MSG_SendAndRecvMsgData(const char *dstApp, uint32_t type, uint32_t data,
                                    uint32_t timeoutMs, uint32_t *resultOut);
uint32_t ORP_MSG_SendEx(int32_t descriptor, ORP_MSG_HEADER_ST *message);
uint32_t ORP_MSG_SendFd(int32_t descriptor);
uint32_t ORP_MSG_SendMsgData(const char *dstApp, uint32_t type, const void *body, uint32_t bodyLen);
uint32_t ORP_MSG_SendMsgDataWithData(const char *dstApp, uint32_t type, const void *body,
                                     uint32_t bodyLen, uint32_t data);
uint32_t ORP_MSG_SendMsgDataWithDataSeq(const char *dstApp, uint32_t type, const void *body,
                                        uint32_t bodyLen, uint32_t data, uint32_t seq);
uint32_t ORP_MSG_SendRealTimeMsg(ORP_MSG_HEADER_ST *message);
uint32_t ORP_MSG_SendRestfulResponseMsg(const char *dstApp, uint32_t type, const void *body,
                                        uint32_t bodyLength, uint32_t data, uint32_t seq);
uint32_t ORP_MSG_SendSimpleMsg(const char *dstApp, uint32_t type, uint32_t data);
uint32_t ORP_MSG_SendSimpleMsgWithSeqNum(const char *dstApp, uint32_t type, uint32_t data,
                                         uint32_t seq);
uint32_t ORP_MSG_SendTo(int32_t descriptor, ORP_MSG_HEADER_ST *message,
                        const struct sockaddr *address, uint32_t addressLength);
void ORP_MSG_SimpleBuilder(ORP_MSG_HEADER_ST *header, const char *dstApp, uint32_t type,
                           uint32_t data);
uint32_t ORP_MSG_SubscribeEventForOtherApp(uint32_t event, const char *appName);
void ORP_MSG_TraceProc(int32_t descriptor);
void ORP_MSG_UnRegisterMsgProc(ORP_MSG_REG_HANDLE handle);
uint32_t ORP_MSG_UnSubscribeEventForOtherApp(uint32_t event, const char *appName);
uint32_t ORP_NLS_ConvertGetLength(const char *input_encoding, const char *input, uint32_t length,
                                  const char *output_encoding, uint32_t accept_partial);
char *ORP_NLS_ConvertString(const char *input_encoding, const char *input, uint32_t length,
                            const char *output_encoding, uint32_t *output_length);
char *ORP_NLS_GB2312Convert(const char *text, const char *output_encoding,
                            const char *input_encoding);
char *ORP_NLS_GbConvert(const char *text, const char *output_encoding, const char *input_encoding);
char *ORP_NLS_IconvConvert(const char *text, const char *output_encoding,
                           const char *input_encoding);
uint32_t ORP_NLS_IsStringUtf8(const char *text);
char *ORP_NLS_TryConvertToUtf8(const char *text);
const char *ORP_NLS_TryConvertToUtf8NoFree(const char *text);
void ORP_NOTIFYCLT_Destroy(void);
uint32_t ORP_NOTIFYCLT_GetMIDByName(const char *name);
const char *ORP_NOTIFYCLT_GetNameByMID(uint32_t moduleId);
uint32_t ORP_NOTIFYCLT_Init(uint32_t moduleId);
uint32_t ORP_NOTIFYCLT_InitByName(const char *name);
uint32_t ORP_NOTIFYCLT_MsgFilterProc(NOTIFY_MSG *message);
uint32_t ORP_NOTIFYCLT_PostAsynNotify(uint32_t desId, uint32_t msgType, const void *data1,
                                      uint32_t len1, const void *data2, uint32_t len2);
uint32_t ORP_NOTIFYCLT_PostSimpleAsynNotify(uint32_t desId, uint32_t msgType, uint32_t value1,
                                            uint32_t value2);
uint32_t ORP_NOTIFYCLT_RegAsyncMsgProc(uint32_t msgType, ORP_NOTIFYCLT_ASYNC_PROC proc);
uint32_t ORP_NOTIFYCLT_RegSyncMsgProc(uint32_t msgType, ORP_NOTIFYCLT_SYNC_PROC proc);
uint32_t ORP_NOTIFYCLT_SendSynNotify(uint32_t desId, uint32_t msgType, const void *data,
                                     uint32_t dataLen, void **respData, uint32_t *respLen,
                                     const uint32_t *syncArg);
void ORP_NOTIFYCLT_SwitchSock(int32_t fd);
void ORP_NOTIYCLT_RegMsgProc(ORP_NOTIFYCLT_SYNC_ANY_PROC syncProc,
                             ORP_NOTIFYCLT_ASYNC_ANY_PROC asyncProc);
uint32_t ORP_Netlink_SendToKernel(const void *data, uint32_t len, uint16_t port);
const char *ORP_SYSINFO_GetStandLangStr(const char *language);
OrpUvTimer *ORP_TIMER_AddWithName(uint32_t intervalMs, uint32_t count, ORP_TIMER_PROC callback,
                                  const char *name, ORP_WORD data);
uint64_t ORP_TRACE_GetFileMaxSize(void);
uint32_t ORP_TRACE_GetOutput(void);
uint32_t ORP_TRACE_IsModuleEnabled(const char *package, uint32_t level);
uint32_t ORP_TRACE_PrintInfo(const char *function, uint32_t line, uint32_t reserved,
                             const char *category, uint32_t level, const char *format, ...);
uint32_t ORP_TRACE_RegModule(const char *name);
void ORP_TRACE_SetFileMaxSize(uint64_t size);
void ORP_TRACE_SetOutput(uint32_t toFile);
uint32_t ORP_TRACE_SetPackageLevel(const char *package, uint32_t level);
uint32_t ORP_UPG_PreDownloadProtect(uint32_t first, uint32_t second);
uint32_t ORP_UPG_ReleaseAllProtect(void);
uint32_t ORP_URLSTORE_GetUrl(uint32_t urlNumber, char *buffer, uint32_t bufferSize);
void ORP_UTIL_BIDisguiseMacAddress(const char *text, char *out, uint32_t size);
uint32_t ORP_UTIL_CheckStringTerminated(const char *buffer, uint32_t size);
uint32_t ORP_UTIL_CheckTCPPortInUse(uint32_t port);
uint32_t ORP_UTIL_CheckTimeValid(uint32_t year, uint32_t month, uint32_t day, uint32_t hour,
                                 uint32_t minute, uint32_t second);
uint32_t ORP_UTIL_ClearWriteFd(ORP_UTIL_SOCKBASE_ST *sockBase);
ORP_UTIL_ADDRINFO_ST *ORP_UTIL_CopyAddrInfo(const ORP_UTIL_ADDRINFO_ST *list, uint32_t wholeChain);
void ORP_UTIL_CopyFile(const char *source, const char *target);
uint32_t ORP_UTIL_DecodePath(const char *token, char *out, uint32_t size);
uint32_t ORP_UTIL_DeleteSubStr(const char *text, const char *part, char *out, uint32_t size);
void ORP_UTIL_DisguiseMacAddress(uint32_t maskAll, const char *text, char *out, uint32_t size);
uint32_t ORP_UTIL_EncodePath(const char *path, char *out, uint32_t size);
int32_t ORP_UTIL_ExecCmdWithPermissions(const char *command);
int32_t ORP_UTIL_ExecCmdWithPermissionsFullEx(const char *command, uint32_t timeoutMs,
                                              uint32_t pollMs, uint32_t killOnTimeout);
int32_t ORP_UTIL_ExecCmdWithPermissionsMorePara(char *const *args, uint32_t timeoutMs,
                                                uint32_t pollMs, uint32_t killOnTimeout);
uint32_t ORP_UTIL_FindKernelPidByName(const char *name);
uint32_t ORP_UTIL_FindModuleAndFuncByUri(const char *uri, char *module, uint32_t module_size,
                                         char *function, uint32_t function_size);
uint32_t *ORP_UTIL_FindPidByName(const char *name);
void ORP_UTIL_FreeAddrInfo(ORP_UTIL_ADDRINFO_ST *list);
uint32_t ORP_UTIL_GetAllInterfaceOnBr(const char *bridge, uint32_t maxCount,
                                      char (*names)[ORP_IF_NAME_SIZE]);
uint32_t ORP_UTIL_GetBrByLanInterface(const char *ifName, char *out, uint32_t outSize,
                                      const char *showFile);
uint32_t ORP_UTIL_GetBrFdbInfoByMac(const char *mac, ORP_UTIL_BR_FDB_ST *record);
uint32_t ORP_UTIL_GetBrFdbInfoByMacSpecBr(const char *mac, ORP_UTIL_BR_FDB_ST *record,
                                          const char *bridge);
uint32_t ORP_UTIL_GetBridgeAllNames(char *out, uint32_t outSize);
uint32_t ORP_UTIL_GetBytesMacAddress(const char *ifName, uint8_t mac[ORP_MAC_SIZE]);
int32_t ORP_UTIL_GetCurPid(void);
const char *ORP_UTIL_GetCurTimeStamp(void);
const char *ORP_UTIL_GetCurrGMTTime(void);
const char *ORP_UTIL_GetCurrSpecUtcTime(void);
const char *ORP_UTIL_GetCurrTime(void);
const char *ORP_UTIL_GetCurrTimeStamp(void);
const char *ORP_UTIL_GetCurrTimeWithSpace(void);
const char *ORP_UTIL_GetCurrUTCTime(void);
const char *ORP_UTIL_GetCurrUTCTimeStamp(void);
void ORP_UTIL_GetDelayTime(uint32_t now, uint32_t period, uint32_t align, uint32_t *delay);
void ORP_UTIL_GetDevStats(const char *ifName, ORP_UTIL_DEV_STATS_ST *stats);
uint32_t ORP_UTIL_GetDftPortByProtocolIdx(int32_t index);
uint32_t ORP_UTIL_GetDifTime(const char *text1, const char *text2, uint32_t *seconds,
                             uint32_t *order);
char *ORP_UTIL_GetEscapedUri(const char *path);
uint32_t ORP_UTIL_GetIfcStatInfoEx(const char *ifName, ORP_UTIL_IFC_STAT_ST *counters);
uint32_t ORP_UTIL_GetInterfaceNameByMacAddr(const char *mac, char *out, uint32_t outSize);
uint32_t ORP_UTIL_GetIpAddresses(const char *host, ORP_WORD argument, uint32_t port,
                                 ORP_UTIL_ADDRINFO_ST **out);
uint32_t ORP_UTIL_GetIpByName(const char *name, struct sockaddr_in *address);
uint32_t ORP_UTIL_GetIpv6LinkAddress(const char *ifName, char *out, uint32_t outSize);
uint32_t ORP_UTIL_GetLinuxVersion(void);
const char *ORP_UTIL_GetLocalTimeStamp(void);
uint32_t ORP_UTIL_GetMacAddressByInterfaceName(const char *ifName, uint8_t *mac, uint32_t size);
uint64_t ORP_UTIL_GetMsecondAfterStart(void);
uint32_t ORP_UTIL_GetPid(const char *name);
uint32_t ORP_UTIL_GetProtocolTypeIdxFromStr(const char *name);
const char *ORP_UTIL_GetProtocolTypeStrFromIdx(uint32_t index);
void ORP_UTIL_GetReleaseDate(char *buffer, uint32_t size);
uint32_t ORP_UTIL_GetSecureMacAddress(const char *text, char *out, uint32_t size);
uint32_t ORP_UTIL_GetSysTime(ORP_TIME_ST *timeOut);
uint32_t ORP_UTIL_GetSysUpTime(void);
void ORP_UTIL_GetWanMacAddr(const char *ifName, char *out, uint32_t size);
void ORP_UTIL_HexStr2Bin(uint8_t *out, uint32_t size, const char *text);
uint32_t ORP_UTIL_IsAddrInfoSame(const ORP_UTIL_ADDRINFO_ST *left,
                                 const ORP_UTIL_ADDRINFO_ST *right);
uint32_t ORP_UTIL_IsAddrLoopback(const ORP_UTIL_ADDRINFO_ST *record);
uint32_t ORP_UTIL_IsPathAllowAccess(const char *base, const char *path);
uint32_t ORP_UTIL_IsPathAllowAccessEx(const char *base, const char *path, uint32_t mode);
uint32_t ORP_UTIL_KillAllDynApp(void);
void ORP_UTIL_MacStrToByte(const char *text, char separator, uint8_t mac[ORP_MAC_SIZE]);
char *ORP_UTIL_Macntoa(const uint8_t *mac, uint32_t count, char *out, uint32_t size);
ORP_UTIL_ADDRINFO_ST *ORP_UTIL_MakeAddrInfo(uint32_t flags, const struct sockaddr *address,
                                            uint32_t length);
uint32_t ORP_UTIL_MatchPrefixPath(const char *patterns, const char *path);
uint32_t ORP_UTIL_NotifierDoNotifyExtend(ORP_UTIL_NOTIFIER_ST *notifier, uint32_t stop,
                                         const ORP_UTIL_NOTIFIER_HOOKS_ST *hooks);
uint32_t ORP_UTIL_NotifierDoNotifyWithCmsInit(ORP_UTIL_NOTIFIER_ST *notifier, uint32_t stop,
                                              const ORP_UTIL_NOTIFIER_HOOKS_ST *hooks,
                                              ORP_WORD further);
uint32_t ORP_UTIL_NotifierDoNotifyWrapEx(const char *caller, ORP_WORD ignored,
                                         ORP_UTIL_NOTIFIER_ST *notifier, uint32_t stop);
uint32_t ORP_UTIL_NotifierInitEx(ORP_WORD context, ORP_UTIL_NOTIFIER_ST **notifierOut);
uint32_t ORP_UTIL_NotifierReg(ORP_UTIL_NOTIFIER_ST *notifier, ORP_UTIL_NOTIFIER_PROC proc,
                              uint32_t priority, ORP_WORD data,
                              ORP_UTIL_NOTIFIER_ENTRY_ST **entryOut);
uint32_t ORP_UTIL_NotifierRegEx(ORP_UTIL_NOTIFIER_ST *notifier,
                                const ORP_UTIL_NOTIFIER_PAIR_ST *pair, uint32_t priority,
                                ORP_WORD data, ORP_UTIL_NOTIFIER_ENTRY_ST **entryOut);
uint32_t ORP_UTIL_NotifierReverseReg(ORP_UTIL_NOTIFIER_ST *notifier, ORP_UTIL_NOTIFIER_PROC proc,
                                     uint32_t priority, ORP_WORD data,
                                     ORP_UTIL_NOTIFIER_ENTRY_ST **entryOut);
void ORP_UTIL_NotifierUnReg(ORP_UTIL_NOTIFIER_ST *notifier, ORP_UTIL_NOTIFIER_ENTRY_ST *entry);
void ORP_UTIL_NvPairDelAll(ORP_UTIL_NV_PAIR_ST **head);
void ORP_UTIL_NvPairDelByName(ORP_UTIL_NV_PAIR_ST **head, const char *name);
ORP_UTIL_NV_PAIR_ST *ORP_UTIL_NvPairFindByName(ORP_UTIL_NV_PAIR_ST *head, const char *name);
char *ORP_UTIL_NvPairGetValue(ORP_UTIL_NV_PAIR_ST *head, const char *name);
ORP_UTIL_NV_PAIR_ST *ORP_UTIL_NvPairSet(ORP_UTIL_NV_PAIR_ST **head, const char *name,
                                        const char *value);
ORP_UTIL_ADDRINFO_ST *ORP_UTIL_ParseIPAddress(uint32_t flags, const char *host, uint32_t port);
uint32_t ORP_UTIL_ParseUrl(const char *url, uint32_t *protocol, char **host, uint32_t *port,
                           char **path);
uint32_t ORP_UTIL_ParseUrlEx(const char *url, uint32_t *protocol, char **host, uint32_t *port,
                             char **path, ORP_WORD reserved);
uint32_t ORP_UTIL_PostLua(const char *first, const char *script);
uint32_t ORP_UTIL_Reboot(uint32_t mode);
void ORP_UTIL_RegNameResolveFunc(ORP_UTIL_NAME_RESOLVE resolver);
uint32_t ORP_UTIL_RemoveSuffix(const char *text, char *out, uint32_t size, char separator);
uint32_t ORP_UTIL_RestartDynApp(const char *appName);
uint32_t ORP_UTIL_SaveStripSeparator(const char *text, char separator, char *out, uint32_t size);
uint32_t ORP_UTIL_SetWriteFd(ORP_UTIL_SOCKBASE_ST *sockBase);
void ORP_UTIL_SockBaseDeleteNew(int32_t fd);
void ORP_UTIL_SockBaseDestroy(ORP_UTIL_SOCKBASE_ST *sockBase);
uint32_t ORP_UTIL_SockBaseReg(int32_t fd, ORP_WORD ignored, ORP_UTIL_SOCKBASE_PROC proc,
                              uint32_t mode, ORP_WORD data, ORP_UTIL_SOCKBASE_ST **sockBaseOut);
uint32_t ORP_UTIL_SockBaseRegEvtProc(void);
ORP_UTIL_SOCKBASE_ST *ORP_UTIL_SockBaseRegNew(int32_t fd, ORP_WORD ignored,
                                              ORP_UTIL_SOCKBASE_PROC proc, uint32_t mode,
                                              ORP_WORD data);
uint32_t ORP_UTIL_SockBaseStart(uint32_t seconds);
ORP_UTIL_SOCK_RESP_ST *ORP_UTIL_SockbaseWaitSockRespAsync(int32_t fd, ORP_WORD ignored,
                                                          uint32_t timeoutMs, ORP_WORD userValue,
                                                          ORP_UTIL_SOCKBASE_PROC proc);
void ORP_UTIL_SocketBaseDelete(ORP_UTIL_SOCKBASE_ST *sockBase);
void ORP_UTIL_SocketBaseDirectDo(ORP_UTIL_SOCKBASE_ST *sockBase);
uint32_t ORP_UTIL_SocketBaseForceLoop(ORP_UTIL_SOCKBASE_ST *sockBase);
void ORP_UTIL_SocketBaseListen(ORP_UTIL_SOCKBASE_ST *sockBase, uint32_t mode);
uint32_t ORP_UTIL_SocketClose(int32_t fd);
uint32_t ORP_UTIL_SocketCreateServer(const char *address, uint32_t port, uint32_t flags);
uint32_t ORP_UTIL_SocketCreateServerEx(const char *address, uint32_t port, uint32_t flags,
                                       const char *device);
uint32_t ORP_UTIL_SocketJoinMcast(int32_t fd, const char *group, const ORP_UTIL_ADDRINFO_ST *local);
uint32_t ORP_UTIL_SocketJoinMcastEx(int32_t fd, const char *group,
                                    const ORP_UTIL_ADDRINFO_ST *local, const char *ifName);
uint32_t ORP_UTIL_SocketSetMcastIf(int32_t fd, const char *ifName);
uint32_t ORP_UTIL_SocketSetTTL(int32_t fd, uint8_t ttl);
void ORP_UTIL_SocketbaseAsyncEvtDestroy(ORP_UTIL_SOCK_RESP_ST *response);
void ORP_UTIL_StripSeparator(const char *text, char separator, char *out, uint32_t size);
OrpUvTimer *ORP_UTIL_TimerAdd(uint32_t intervalMs, uint32_t count, ORP_TIMER_PROC callback,
                              ORP_WORD data);
uint32_t ORP_UTIL_UCTTimeFormatCheck(const char *text, ORP_UTIL_DATE_TIME_ST *out);
uint32_t ORP_UTIL_UpdateDynAppListenFd(const char *appName, uint32_t value);
uint32_t ORP_UTIL_UpdateDynAppStatus(const char *appName, uint32_t status);
char *ORP_UTIL_UrlEncode(const char *text);
uint32_t ORP_UTIL_ValidStr(const char *text);
uint32_t ORP_UTIL_ValidateLength(const char *text, uint32_t max);
uint32_t ORP_UTIL_ValidateMacAddress(const char *text);
uint32_t ORP_UTIL_ValidateNumber(const char *text);
uint32_t ORP_UTIL_ValidatePath(const char *path, uint32_t type);
uint32_t ORP_UTIL_ValidatePort(uint32_t port);
int32_t ORP_UTIL_WaitForPidEx(int32_t pid, uint32_t timeoutMs, uint32_t pollMs,
                              uint32_t killOnTimeout);
void ORP_UTIL_get_dev_stats(const char *ifName, ORP_UTIL_DEV_STATS_ST *stats);
uint32_t ORP_UV_IdleInit(OrpUvLoop *loop, OrpUvIdle *watcher);
OrpUvIdle *ORP_UV_IdleStart(OrpUvLoop *loop, ORP_UV_IDLE_PROC proc);
void ORP_UV_LoopDestroy(OrpUvLoop *loop);
uint32_t ORP_UV_LoopRun(OrpUvLoop *loop, uint32_t idleMs);
uint32_t ORP_WEB_CheckFirstLogin(void);
uint32_t ORP_WEB_CheckWebUi(void);
uint32_t ORP_WEB_ForceGuideIsEnabled(void);
uint32_t ORP_WEB_GetCurAccountLevel(uint32_t *levelOut);
uint32_t ORP_WEB_IsGuideStatus(void);
uint32_t ORP_WEB_IsSkipCheckPwd(void);
uint32_t ORP_WEB_IsSpecifiedIniVersion(void);
OrpUvTimer *OrpTimerAddWithName(uint32_t intervalMs, uint32_t count, ORP_TIMER_PROC callback,
                                const char *name, ORP_WORD data);
void OrpTimerSafeDel(OrpUvTimer **timer);
OrpUvTimer *OrpUtilTimerAdd(uint32_t intervalMs, uint32_t count, ORP_TIMER_PROC callback,
                            ORP_WORD data);
uint32_t OrpUtilTimerChgPeriod(OrpUvTimer *timer, uint32_t intervalMs);
void OrpUtilTimerDel(OrpUvTimer *timer);
void OrpUtilTimerGetIntv(const ORP_TIME_ST *later, const ORP_TIME_ST *earlier, ORP_TIME_ST *result);
OrpUvIdle *OrpUvIdleStart(OrpUvLoop *loop, ORP_UV_IDLE_PROC proc);
uint32_t OrpUvIdleStop(OrpUvIdle *watcher);
uint32_t OrpUvIoDelete(OrpUvIo *watcher);
OrpUvIo *OrpUvIoFindByFd(OrpUvLoop *loop, int32_t fd);
uint32_t OrpUvIoForcedLoop(OrpUvIo *watcher, uint32_t events);
uint32_t OrpUvIoInit(OrpUvLoop *loop, OrpUvIo *watcher, int32_t fd, ORP_UV_IO_PROC callback);
uint32_t OrpUvIoSkipLoop(OrpUvIo *watcher, uint32_t on);
uint32_t OrpUvIoStart(OrpUvIo *watcher, uint32_t events);
uint32_t OrpUvIoStop(OrpUvIo *watcher, uint32_t events);
uint64_t OrpUvLoopGetCurIdx(OrpUvLoop *loop);
OrpUvLoop *OrpUvLoopGetDefault(void);
uint32_t OrpUvLoopGetIdleTime(OrpUvLoop *loop);
int32_t OrpUvLoopGetMaxFd(OrpUvLoop *loop);
void OrpUvLoopInit(OrpUvLoop *loop);
uint32_t OrpUvLoopRun(OrpUvLoop *loop, uint32_t idleMs);
uint32_t OrpUvLoopSafeFree(OrpUvLoop *loop, void *data);
void OrpUvLoopSetIdleTime(OrpUvLoop *loop, uint32_t idleMs);
void OrpUvLoopStop(OrpUvLoop *loop);
void OrpUvLoopUpdateSelectTimeout(OrpUvLoop *loop, const ORP_TIME_ST *time);
uint32_t OrpUvMsgDelete(OrpUvMsg *watcher);
uint32_t OrpUvMsgInit(OrpUvLoop *loop, OrpUvMsg *watcher, int32_t fd, ORP_UV_MSG_PROC msgProc);
uint32_t OrpUvMsgStart(OrpUvMsg *watcher);
void OrpUvProcessDeleteRedirectIo(OrpUvProcess *process, OrpUvIo *io);
uint32_t OrpUvProcessKill(OrpUvProcess *process, int32_t signal);
uint32_t OrpUvProcessSpawn(OrpUvLoop *loop, OrpUvProcess **processOut,
                           const OrpUvSpawnOptions *options);
uint32_t OrpUvProcessSpawnSync(const OrpUvSpawnOptions *options, uint32_t timeoutMs);
int32_t OrpUvProcessWaitpid(ORP_UV_WAIT_ST *record);
uint32_t OrpUvTimerDelete(OrpUvTimer *timer);
uint32_t OrpUvTimerInit(OrpUvLoop *loop, OrpUvTimer *timer);
uint32_t OrpUvTimerStart(OrpUvTimer *timer, uint32_t intervalMs, uint32_t count,
                         ORP_TIMER_PROC callback, ORP_WORD data);
uint32_t OrpUvWatcherDelete(OrpUvWatcher *watcher);
uint32_t OrpUvWatcherInit(OrpUvLoop *loop, OrpUvWatcher *watcher, uint32_t type);
uint32_t OrpUvWatcherIterateItem(OrpUvLoop *loop, ORP_WORD argument, ORP_UV_ITERATE_PROC procedure);
uint32_t OrpUvWatcherStart(OrpUvWatcher *watcher);
uint32_t SetCHARParamToDB(uint32_t parameter, const char *value);
uint32_t TraceCtxSetPackageLevel(ORP_TRACE_CTX_ST *context, const char *package, uint32_t level);
void UvMsgWatcherTimeout(ORP_WORD entry);
void ZotaUpgFreeSpecificMem(void);
void ZotaUpgRestartSpecificProc(void);
uint32_t cl_byteOrderToWideChar(const uint8_t *bytes, uint32_t count, uint16_t *units,
                                uint32_t *size);
uint32_t cl_bytesToString(const uint8_t *bytes, uint32_t count, char *text, uint32_t *size);
uint32_t cl_stringToBytes(const char *text, uint32_t count, uint8_t *bytes, uint32_t *size);
uint32_t cl_stringToNumeric(const char *text, uint32_t count, uint32_t base, uint32_t *value);
uint32_t cl_ucs2ToUTF8(const uint16_t *units, uint32_t count, char *text, uint32_t *size);
uint32_t cl_ucs2ToUTF8ByLen(const uint16_t *units, uint32_t count, char *text, uint32_t size);
uint32_t cl_utf8ToUCS2(const char *text, uint32_t count, uint16_t *units, uint32_t *size);
uint32_t cl_widecharToByteOrder(const uint8_t *units, uint32_t count, uint8_t *bytes,
                                uint32_t *size);
extern const uint32_t *g_extendPorts;
extern const char *const *g_extendProtocols;
extern const int32_t g_hwAddressBlurPos[7];
extern const int32_t g_macAddressBlurPos[7];
extern ORP_MSG_SEND_HOOK g_pfMsgSendHook;
extern ORP_MSG_CTX_ST g_stMsgCtx;
extern uint32_t g_ulSafeExitMsgTimeout;
extern const int32_t g_uuidBlurPos[7];
void mlog_print(const char *module, uint32_t level, const char *format, ...);
extern char g_appName[ORP_APP_NAME_SIZE];

#endif
