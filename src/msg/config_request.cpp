// The fixed requests to the configuration manager, which receives them from the message server.

#include "msg/config_request.h"

#include <cstdio>
#include <cstring>

#include "base/text.h"
#include "cfmapi.h"
#include "msg/exchange.h"
#include "msg/send.h"
#include "msgapi/dmmsg.h"

namespace msgapi::msg {
namespace {

constexpr uint32_t kFileTimeoutMs = 15000;

struct FileRequest {
  Header header;
  char path[256];
};

struct RestoreRequest {
  uint32_t mode;
  uint32_t user;
};

Result<uint32_t> request_for_data(uint32_t type, uint32_t timeout_ms) {
  Header request = build_header(kServer, type, 0);
  return exchange_for_data(&request, timeout_ms);
}

// A path that does not fit is refused: cut, it would name another file.
Result<uint32_t> file_request(uint32_t type, const char *path) {
  FileRequest request;
  request.header = build_header(kServer, type, 0);
  if (path != nullptr) {
    if (!copy_exact(request.path, path)) {
      std::printf("copy payload error.");
      return Status::kBadArgument;
    }
    request.header.ulDataLen = static_cast<uint32_t>(std::strlen(path) + 1);
  }
  return exchange_for_data(&request.header, kFileTimeoutMs);
}

// The work of the exported functions, some of which have two names.

uint32_t save() {
  return code(send_header(kServer, ORP_MSG_SAVE_CFG, ORP_CFM_GetCurrUser()));
}

uint32_t save_and_wait() {
  return data_or_code(request_for_data(ORP_MSG_SAVE_CFG_SYNC, 5000));
}

uint32_t save_to_application() {
  return code(send_header(kServer, ORP_MSG_SAVE_CFG_TO_APP, ORP_CFM_GetCurrUser()));
}

uint32_t save_to_application_and_wait() {
  return data_or_code(request_for_data(ORP_MSG_SAVE_CFG_TO_APP_SYNC, 1000));
}

uint32_t check_file(const char *path) {
  return data_or_code(file_request(ORP_MSG_CHECK_CFG_FILE, path));
}

}  // namespace

Status request_reboot(uint32_t mode) {
  return send_header(kServer, ORP_MSG_REBOOT, mode);
}

}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_DB_SaveFunc() {
  return save();
}

extern "C" uint32_t ORP_DB_SaveSyncFunc() {
  return save_and_wait();
}

extern "C" uint32_t ORP_AppSaveSyncFunc() {
  return data_or_code(request_for_data(ORP_MSG_SAVE_APPDATA_SYNC, 1000));
}

extern "C" uint32_t ORP_DB_SaveToAppFunc() {
  return save_to_application();
}

extern "C" uint32_t ORP_DB_SaveToAppSyncFunc() {
  return save_to_application_and_wait();
}

extern "C" uint32_t ORP_CFM_ExtExportEncryptedCfgFile(const char *path) {
  return data_or_code(file_request(ORP_MSG_EXPORT_CFG_FILE, path));
}

extern "C" uint32_t ORP_CFM_ExtExportEncCfgFileByUser(const char *path, uint32_t user) {
  (void)send_header(kServer, ORP_MSG_EXPORT_USER, user);
  return data_or_code(file_request(ORP_MSG_EXPORT_CFG_FILE, path));
}

extern "C" uint32_t ORP_CFM_ExtImportEncryptedCfgFile(const char *path) {
  if (path != nullptr) std::printf("before send ORP_MSG_IMPORT_CFG_FILE, file=%s.\n", path);
  return data_or_code(file_request(ORP_MSG_IMPORT_CFG_FILE, path));
}

extern "C" uint32_t ORP_DB_CheckFile(const char *path) {
  return check_file(path);
}

extern "C" uint32_t ORP_CFM_DelAppdata() {
  return data_or_code(file_request(ORP_MSG_DELETE_APPDATA, nullptr));
}

extern "C" uint32_t ORP_CFM_ExtRestoreDft(uint32_t mode) {
  return code(
      send_record(kServer, ORP_MSG_RESTORE_DEFAULTS, RestoreRequest{mode, ORP_CFM_GetCurrUser()}));
}

extern "C" uint32_t ORP_CFM_ExtReboot(uint32_t mode) {
  return code(request_reboot(mode));
}

extern "C" uint32_t ORP_DBSaveFunc() {
  return save();
}

extern "C" uint32_t ORP_DBSaveSyncFunc() {
  return save_and_wait();
}

extern "C" uint32_t ORP_DBSaveToAppFunc() {
  return save_to_application();
}

extern "C" uint32_t ORP_DBSaveToAppSyncFunc() {
  return save_to_application_and_wait();
}

extern "C" uint32_t ORP_DBCheckFile(const char *path) {
  return check_file(path);
}
