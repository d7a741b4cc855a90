// Trace control.
//
// The settings outlive every user of them and are never torn down.

#include "msgapi/trace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>

#include "base/list.h"
#include "base/memory.h"
#include "base/status.h"
#include "base/text.h"
#include "os/clock.h"

namespace msgapi::uv {
namespace {

constexpr char kAllPackages[] = "all";
constexpr char kLogDirectory[] = "/online/log";
constexpr char kLogFile[] = "/online/log/webapp.log";
constexpr uint64_t kSmallestFileSize = 1024;

ORP_TRACE_CTX_ST g_context = {nullptr, nullptr, nullptr, -1};
uint64_t m_fSize = kSmallestFileSize;
int32_t g_curPid = -1;
char g_time_stamp[40];

const char *name_or_all(const char *package) {
  return package == nullptr ? kAllPackages : package;
}

// Compares the whole name, so one that the table had to cut is never found.
ORP_TRACE_PACKAGE_ST *find_package(ORP_TRACE_PACKAGE_ST *first, const char *name) {
  while (first != nullptr && std::strcmp(first->name, name) != 0) first = first->link;
  return first;
}

Status set_level(ORP_TRACE_CTX_ST *context, const char *name, uint32_t level) {
  if (std::strcmp(name, kAllPackages) == 0) list_delete_all(context->packages);

  ORP_TRACE_PACKAGE_ST *package = find_package(context->packages, name);
  if (level == 0) {
    if (package != nullptr) list_delete(context->packages, package);
    return Status::kOk;
  }

  if (package == nullptr) {
    Owned<ORP_TRACE_PACKAGE_ST> created = make<ORP_TRACE_PACKAGE_ST>();
    if (!created) return Status::kNoMemory;
    copy_cut(created->name, name);
    package = created.release();
    list_append(context->packages, package);
  }
  package->level = level;
  return Status::kOk;
}

Status register_module(const char *name) {
  for (const ORP_TRACE_MODULE_ST *module = g_context.modules; module != nullptr;
       module = module->link) {
    if (std::strcmp(module->name, name) == 0) return Status::kOk;
  }

  Owned<ORP_TRACE_MODULE_ST> created = make<ORP_TRACE_MODULE_ST>();
  Owned<char> copy = duplicate_text(name);
  if (!created || !copy) return Status::kNoMemory;
  created->name = copy.release();
  list_append(g_context.modules, created.release());
  return Status::kOk;
}

void close_output() {
  if (g_context.output != nullptr && g_context.output != stdout) std::fclose(g_context.output);
  if (g_context.outputFd > 0) ::close(g_context.outputFd);
  g_context.output = nullptr;
  g_context.outputFd = -1;
}

}  // namespace
}  // namespace msgapi::uv

using namespace msgapi;
using namespace msgapi::uv;

extern "C" uint32_t TraceCtxSetPackageLevel(ORP_TRACE_CTX_ST *context, const char *package,
                                            uint32_t level) {
  if (context == nullptr) return code(Status::kBadArgument);

  return code(set_level(context, name_or_all(package), level));
}

extern "C" uint32_t ORP_TRACE_SetPackageLevel(const char *package, uint32_t level) {
  return code(set_level(&g_context, name_or_all(package), level));
}

extern "C" uint32_t ORP_TRACE_IsModuleEnabled(const char *package, uint32_t level) {
  const ORP_TRACE_PACKAGE_ST *found = find_package(g_context.packages, name_or_all(package));
  if (found == nullptr) found = find_package(g_context.packages, kAllPackages);
  return found != nullptr && found->level >= level ? 1 : 0;
}

extern "C" void ORP_TRACE_SetFileMaxSize(uint64_t size) {
  if (size > kSmallestFileSize) m_fSize = size;
}

extern "C" uint64_t ORP_TRACE_GetFileMaxSize(void) {
  return m_fSize;
}

extern "C" uint32_t ORP_TRACE_GetOutput(void) {
  if (g_context.output == nullptr) g_context.output = stdout;
  return g_context.output == stdout ? 0 : 1;
}

extern "C" void ORP_TRACE_SetOutput(uint32_t toFile) {
  close_output();
  if (toFile == 0) {
    g_context.output = stdout;
    return;
  }

  if (::mkdir(kLogDirectory, 0700) != 0) std::printf("mkdir for %s faield \r\n", kLogDirectory);
  g_context.output = std::fopen(kLogFile, "abe");
}

extern "C" uint32_t ORP_TRACE_RegModule(const char *name) {
  if (name == nullptr) return code(Status::kNoMemory);  // deliberately not kBadArgument

  return code(register_module(name));
}

extern "C" uint32_t ORP_TRACE_PrintInfo(const char * /*function*/, uint32_t /*line*/,
                                        uint32_t /*reserved*/, const char * /*category*/,
                                        uint32_t /*level*/, const char * /*format*/, ...) {
  return 0;
}

extern "C" int32_t ORP_UTIL_GetCurPid(void) {
  // Never refreshed: a child made with fork() keeps its parent's id, on purpose.
  if (g_curPid == -1) g_curPid = ::getpid();
  return g_curPid;
}

extern "C" const char *ORP_UTIL_GetCurTimeStamp(void) {
  timeval wall;
  if (::gettimeofday(&wall, nullptr) != 0) return "";

  ORP_TIME_ST monotonic;
  (void)os::read_monotonic(&monotonic);
  if (!format_exact(g_time_stamp, "%-.8ld.%-.6ld %-.8ld.%-.6ld", static_cast<long>(wall.tv_sec),
                    static_cast<long>(wall.tv_usec), static_cast<long>(monotonic.seconds),
                    static_cast<long>(monotonic.microseconds))) {
    std::printf("fomat time error.");
    return "";
  }
  return g_time_stamp;
}

extern "C" char *GetAucAppNamePointer(void) {
  return g_appName;
}
