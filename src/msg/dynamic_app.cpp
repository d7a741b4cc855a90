// Requests about dynamic applications and synchronisation points, scripts for the web application,
// and two queries of the system.

#include "msg/dynamic_app.h"

#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include <cstdio>
#include <cstring>

#include "base/copy_failure.h"
#include "msg/context.h"
#include "msg/exchange.h"
#include "msg/send.h"
#include "msgapi/dynapp.h"

uint32_t g_ulSafeExitMsgTimeout = 5000;

namespace msgapi::msg {
namespace {

constexpr uint32_t kStopAllTimeoutMs = 20000;

// Asks the application to exit and waits for its answer. The server goes on whatever the answer is.
void stop(const char *name) {
  // The first word is long-standing: people search consoles for it.
  std::printf("ineted app %s should stop. we will safe exit process [%s] now.\n", name, name);
  Header request = build_header(name, ORP_MSG_EXIT, 0);
  const Result<Owned<Header>> reply = exchange(&request, g_ulSafeExitMsgTimeout);
  if (!reply) {
    std::printf("send msg to %s failed when safe exit process, ret = %d.\n", name,
                static_cast<int>(code(reply.status())));
  }
}

Status update(const char *name, uint32_t action) {
  if (name == nullptr) return Status::kFailed;
  if (action != ORP_DYNAPP_ON && own_name() != name) stop(name);
  NameMessage message = build_name_message(ORP_MSG_DYNAPP_UPDATE, action, name);
  return send(&message.header);
}

struct ScriptHead {
  Header header;
  char first[256];
};
static_assert(sizeof(ScriptHead) == 296);

Status post_script(std::string_view first, std::string_view script) {
  if (script.size() >= 0xFFFFFED6) return Status::kFailed;
  const Owned<ScriptHead> message(
      static_cast<ScriptHead *>(guarded_zalloc(sizeof(ScriptHead) + uint64_t{script.size()} + 1)));
  if (!message) return Status::kFailed;

  message->header = build_header("web", ORP_MSG_POST_SCRIPT, 0);
  message->header.ulDataLen = static_cast<uint32_t>(sizeof message->first + script.size() + 1);
  if (!copy_or_report(message->first, first)) return Status::kFailed;
  copy_cut({reinterpret_cast<char *>(message.get() + 1), script.size() + 1}, script);
  return send(&message->header);
}

Status post_to_sync_point(std::string_view name) {
  const size_t size = name.size() + 1;
  if (name.empty() || size > UINT32_MAX) return Status::kFailed;
  return send_content(kServer, ORP_MSG_SYNC_POST, {name.data(), size});
}

}  // namespace

uint32_t linux_version(std::string_view release) {
  if (release.find("2.6.21") != std::string_view::npos) return 0;
  return release.find("2.6.36") != std::string_view::npos ? 2 : 1;
}

}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_UTIL_UpdateDynAppListenFd(const char *appName, uint32_t value) {
  return code(update(appName, value));
}

extern "C" uint32_t ORP_UTIL_UpdateDynAppStatus(const char *appName, uint32_t status) {
  return code(update(appName, status != 0 ? ORP_DYNAPP_ON : ORP_DYNAPP_OFF));
}

extern "C" uint32_t ORP_UTIL_RestartDynApp(const char *appName) {
  return code(update(appName, ORP_DYNAPP_RESTART));
}

extern "C" uint32_t ORP_UTIL_KillAllDynApp() {
  Header request = build_header(kServer, ORP_MSG_DYNAPP_STOP_ALL, 0);
  return data_or_code(exchange_for_data(&request, kStopAllTimeoutMs));
}

// This function has always started the exchange without a request, so it fails at once, and callers
// treat the wait as unavailable. Only a name that does not fit has another status.
extern "C" uint32_t ORP_MSG_OrpSyncWait(const char *name, uint32_t /*timeoutMs*/) {
  char field[ORP_APP_NAME_SIZE];
  return code(copy_or_report(field, text_or_empty(name)) ? Status::kBadArgument : Status::kSystem);
}

extern "C" uint32_t ORP_MSG_OrpSyncPost(const char *name) {
  return code(post_to_sync_point(text_or_empty(name)));
}

extern "C" uint32_t ORP_UTIL_PostLua(const char *first, const char *script) {
  return code(script == nullptr ? Status::kFailed : post_script(text_or_empty(first), script));
}

extern "C" uint32_t ORP_UTIL_GetSysUpTime() {
  struct sysinfo info;
  return ::sysinfo(&info) == 0 ? static_cast<uint32_t>(info.uptime) : 0;
}

extern "C" uint32_t ORP_UTIL_GetLinuxVersion() {
  utsname names;
  return linux_version(::uname(&names) == 0 ? names.release : "");
}
