// The fixed requests to the configuration manager behind the message server.

#include "msg/config_request.h"

#include <cstdio>
#include <cstring>

#include "base/text.h"
#include "cfmapi.h"
#include "msg/exchange.h"
#include "msgapi/dmmsg.h"
#include "msgapi/msg.h"

namespace msgapi::msg {
namespace {

constexpr uint32_t kFileTimeoutMs = 15000;

constexpr char kServer[] = "";

struct FileRequest {
  Header header;
  char path[256];
};

struct RestoreRequest {
  uint32_t mode;
  uint32_t user;
};

uint32_t request_for_data(uint32_t type, uint32_t timeout_ms) {
  Header request = build_header(kServer, type, 0);
  return exchange_for_data(&request, timeout_ms);
}

// A path that does not fit is refused: cut, it would name another file.
uint32_t file_request(uint32_t type, const char *path) {
  FileRequest request;
  request.header = build_header(kServer, type, 0);
  if (path != nullptr) {
    if (!copy_exact(request.path, path)) {
      std::printf("copy payload error.");
      return code(Status::kBadArgument);
    }
    request.header.ulDataLen = static_cast<uint32_t>(std::strlen(path) + 1);
  }
  return exchange_for_data(&request.header, kFileTimeoutMs);
}

}  // namespace

uint32_t request_reboot(uint32_t mode) {
  return ORP_MSG_SendSimpleMsg(kServer, ORP_MSG_REBOOT, mode);
}

}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_DB_SaveFunc() {
  return ORP_MSG_SendSimpleMsg(kServer, ORP_MSG_SAVE_CFG, ORP_CFM_GetCurrUser());
}

extern "C" uint32_t ORP_DB_SaveSyncFunc() {
  return request_for_data(ORP_MSG_SAVE_CFG_SYNC, 5000);
}

extern "C" uint32_t ORP_AppSaveSyncFunc() {
  return request_for_data(ORP_MSG_SAVE_APPDATA_SYNC, 1000);
}

extern "C" uint32_t ORP_DB_SaveToAppFunc() {
  return ORP_MSG_SendSimpleMsg(kServer, ORP_MSG_SAVE_CFG_TO_APP, ORP_CFM_GetCurrUser());
}

extern "C" uint32_t ORP_DB_SaveToAppSyncFunc() {
  return request_for_data(ORP_MSG_SAVE_CFG_TO_APP_SYNC, 1000);
}

extern "C" uint32_t ORP_CFM_ExtExportEncryptedCfgFile(const char *path) {
  return file_request(ORP_MSG_EXPORT_CFG_FILE, path);
}

extern "C" uint32_t ORP_CFM_ExtExportEncCfgFileByUser(const char *path, uint32_t user) {
  (void)ORP_MSG_SendSimpleMsg(kServer, ORP_MSG_EXPORT_USER, user);
  return file_request(ORP_MSG_EXPORT_CFG_FILE, path);
}

extern "C" uint32_t ORP_CFM_ExtImportEncryptedCfgFile(const char *path) {
  if (path != nullptr) std::printf("before send ORP_MSG_IMPORT_CFG_FILE, file=%s.\n", path);
  return file_request(ORP_MSG_IMPORT_CFG_FILE, path);
}

extern "C" uint32_t ORP_DB_CheckFile(const char *path) {
  return file_request(ORP_MSG_CHECK_CFG_FILE, path);
}

extern "C" uint32_t ORP_CFM_DelAppdata() {
  return file_request(ORP_MSG_DELETE_APPDATA, nullptr);
}

extern "C" uint32_t ORP_CFM_ExtRestoreDft(uint32_t mode) {
  const RestoreRequest request = {mode, ORP_CFM_GetCurrUser()};
  return ORP_MSG_SendMsgData(kServer, ORP_MSG_RESTORE_DEFAULTS, &request, sizeof request);
}

extern "C" uint32_t ORP_CFM_ExtReboot(uint32_t mode) {
  return request_reboot(mode);
}

extern "C" uint32_t ORP_DBSaveFunc() {
  return ORP_DB_SaveFunc();
}

extern "C" uint32_t ORP_DBSaveSyncFunc() {
  return ORP_DB_SaveSyncFunc();
}

extern "C" uint32_t ORP_DBSaveToAppFunc() {
  return ORP_DB_SaveToAppFunc();
}

extern "C" uint32_t ORP_DBSaveToAppSyncFunc() {
  return ORP_DB_SaveToAppSyncFunc();
}

extern "C" uint32_t ORP_DBCheckFile(const char *path) {
  return ORP_DB_CheckFile(path);
}
