// Scenarios without servers: children, ring files, the configuration store, the utilities.

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cfmapi.h"
#include "cfmstore.h"
#include "msgapi.h"
#include "scenario.h"

namespace torture {
namespace {

// ---- Children ----------------------------------------------------------------------------------

char g_output[64];
size_t g_output_size;

void read_output(OrpUvProcess *process, OrpUvIo *io, uint32_t) {
  const ssize_t got = ::read(io->fd, g_output + g_output_size, sizeof g_output - 1 - g_output_size);
  if (got < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (got <= 0) return OrpUvProcessDeleteRedirectIo(process, io);
  g_output_size += static_cast<size_t>(got);
}

void write_input(OrpUvProcess *process, OrpUvIo *io) {
  [[maybe_unused]] const ssize_t written = ::write(io->fd, "hello\n", 6);
  OrpUvProcessDeleteRedirectIo(process, io);
}

bool spawn() {
  std::memset(g_output, 0, sizeof g_output);
  g_output_size = 0;
  static char *words[] = {const_cast<char *>("/bin/sh"), const_cast<char *>("-c"),
                          const_cast<char *>("read line; echo $line; exit 3"), nullptr};
  OrpUvSpawnOptions options{};
  options.file = words[0];
  options.args = words;
  options.flags = ORP_UV_SPAWN_STDIN | ORP_UV_SPAWN_STDOUT;
  options.outputProc = read_output;
  options.stdinProc = write_input;
  const uint32_t status = OrpUvProcessSpawnSync(&options, 2000);
  if (status == ORP_ERR_MEMORY || status == ORP_ERR_SYSTEM) return false;
  const bool ran = status == 3 && std::strcmp(g_output, "hello\n") == 0;
  // Without a pipe that could not be made, the shell reads and writes what it inherits. 127: its
  // own set-up failed. A time-out also returns 0.
  must(status == 3 || status == 0 || status == 127 || status == 1 || status == 2,
       "a spawn returns the child's exit code or a status");
  return ran;
}

bool command() {
  static char *words[] = {const_cast<char *>("/bin/true"), nullptr};
  const int32_t status = ORP_UTIL_ExecCmdWithPermissionsMorePara(words, 2000, 0, 1);
  return succeeded(status, {-1, 0x10005, 0x10007, 127});
}

// ---- Ring file ---------------------------------------------------------------------------------

bool ring_file() {
  const char *path = "/var/tmp/ring.log";
  constexpr uint32_t kLimit = 4096;
  MlogFile *file = MlogFileConstructor(path, kLimit);
  if (file == nullptr) return false;
  MlogTarget target = {kLimit, file};
  bool done = true;
  for (int i = 0; i < 6 && done; ++i) {
    char text[1000];
    std::memset(text, 'a' + i, sizeof text);
    text[sizeof text - 1] = '\n';
    done = succeeded(MlogFileWrite(&target, text, sizeof text), {-1});
  }
  if (done && std::ferror(file->stream) != 0) done = false;
  MlogFileDestructor(file);
  struct stat status {};
  if (::stat(path, &status) == 0) must(status.st_size <= kLimit, "a ring keeps its limit");
  const int fd = MlogFileOpen(path);
  if (fd < 0) return false;
  char head[16] = {};
  const ssize_t got = ::read(fd, head, 14);
  MlogFileClose(fd);
  return done && got == 14 && std::strncmp(head, "[overturn=", 10) == 0;
}

// ---- Configuration store -----------------------------------------------------------------------

bool store() {
  const std::initializer_list<int64_t> statuses = {CFM_ERR_NOT_FOUND, CFM_ERR_DAMAGED, CFM_ERR_BUSY,
                                                   CFM_ERR_UNAVAILABLE, CFM_ERR_MEMORY};
  const uint32_t wait = 4;
  const CFM_VALUE values[] = {
      {CFM_AREA_PARAMETER, 0, 0, CFM_PARA_LOGIN_WAIT, CFM_TYPE_NUMBER, 4, &wait, 4},
      {CFM_AREA_PARAMETER, CFM_OBJ_WEB_USER, 1, CFM_PARA_WEB_USER_NAME, CFM_TYPE_TEXT, 68, "admin",
       5}};
  const uint32_t five = 5;
  uint32_t read_back = 0, count = 0;
  ORP_DB_KEY_ST *keys = nullptr;
  if (!succeeded(CFM_StoreDefine(values, 2, CFM_DEFINE_DEFAULT), statuses) ||
      !succeeded(ORP_DBSetPara(nullptr, CFM_PARA_LOGIN_WAIT, &five, 4), statuses) ||
      !succeeded(ORP_DBGetPara(nullptr, CFM_PARA_LOGIN_WAIT, &read_back, 4), statuses) ||
      !must(read_back == 5, "the store keeps what it was given") ||
      !succeeded(ORP_DBGetNumOfObjs(CFM_OBJ_WEB_USER, &count, &keys), statuses)) {
    return false;
  }
  const ORP_DB_KEY_ST key = count == 0 ? ORP_DB_KEY_ST{} : keys[0];
  std::free(keys);
  void *record = nullptr;
  if (!must(count == 1, "one web user") || !succeeded(ORP_DBGetObj(&key, &record), statuses)) {
    return false;
  }
  must(std::strcmp(static_cast<ORP_WEB_USERINFO_ST *>(record)->pcUserName, "admin") == 0,
       "an object holds its values");
  ORP_CFM_FreeObj(record);
  return succeeded(CFM_StoreSave(), statuses);
}

// ---- Utilities ---------------------------------------------------------------------------------

// Frees the block that a function returned. Whether there was one.
bool had(void *block) {
  std::free(block);
  return block != nullptr;
}

bool text() {
  uint32_t protocol = 0, port = 0;
  char *host = nullptr, *path = nullptr;
  const uint32_t parsed =
      ORP_UTIL_ParseUrl("https://router.lan:8443/a/b?c", &protocol, &host, &port, &path);
  const bool whole = host != nullptr && path != nullptr;
  std::free(host);
  std::free(path);
  must((parsed == 1) == whole, "an address is split whole or not at all");
  if (!whole) return false;

  const uint16_t units[] = {'a', 0xe4, 0x20ac};
  char utf8[16];
  uint32_t size = sizeof utf8;
  must(CL_Ucs2ToUtf8(units, 3, utf8, &size) == CL_OK && size == 6, "a codec needs nothing");
  return had(ORP_UTIL_UrlEncode("a b&c")) && had(ORP_UTIL_GetEscapedUri("/a b"));
}

bool data() {
  ORP_UTIL_NV_PAIR_ST *pairs = nullptr;
  const bool set = ORP_UTIL_NvPairSet(&pairs, "one", "1") != nullptr &&
                   ORP_UTIL_NvPairSet(&pairs, "two", "2") != nullptr &&
                   ORP_UTIL_NvPairSet(&pairs, "one", "another") != nullptr;
  if (set) must(std::strcmp(ORP_UTIL_NvPairGetValue(pairs, "one"), "another") == 0, "a pair");
  ORP_UTIL_NvPairDelAll(&pairs);
  if (!set) return false;

  const std::initializer_list<int64_t> statuses = {ORP_DMMSG_ERR_MEMORY, ORP_DMMSG_ERR_GROW};
  void *body = nullptr;
  if (!succeeded(ORP_DMMSG_Builder(&body, "other", 1), statuses)) return false;
  bool appended = true;
  for (int i = 0; i < 40 && appended; ++i) {
    appended =
        succeeded(ORP_DMMSG_AppendItem(&body, 1, "name", "a value of some bytes", 22), statuses);
  }
  const void *cursor = nullptr;
  ORP_DMMSG_ITEM_ST item;
  int items = 0;
  while (appended && ORP_DMMSG_GetItemEx(body, &item, &cursor) == 0) ++items;
  if (appended) must(items == 40, "every item is read again");
  ORP_DMMSG_Free(body);
  if (!appended) return false;

  cJSON *object = nullptr, *payload = nullptr;
  const bool built = ORP_EVT_JsonBeginProc(&object, "wan", "state") == ORP_EVT_OK &&
                     ORP_EVT_BuiderJsonProc(&payload, "link", "up") == ORP_EVT_OK;
  cJSON_Delete(object);
  cJSON_Delete(payload);
  return built;
}

bool dns() {
  ORP_DNS_PACKET_ST *query = ORP_DNS_PacketBuildRequest("www.example.org");
  if (query == nullptr) return false;
  ORP_DNS_RR_ST record = {};
  std::strcpy(record.aucName, "www.example.org");
  record.ulType = record.ulClass = 1;
  record.ulTtl = 60;
  record.ulRdLength = 4;
  const uint8_t address[] = {192, 0, 2, 1};
  record.pucRdata = address;
  const bool done = had(ORP_DNS_PacketBuildResponse(query, &record, 0)) &&
                    had(ORP_DNS_PacketBuildErrorResponse(query, 3)) &&
                    had(ORP_DNS_PacketCopy(query, 1024));
  std::free(query);
  return done;
}

bool network() {
  ORP_UTIL_ADDRINFO_ST *list = ORP_UTIL_ParseIPAddress(0, "127.0.0.1", 80);
  if (list == nullptr) return false;
  ORP_UTIL_ADDRINFO_ST *copy = ORP_UTIL_CopyAddrInfo(list, 1);
  if (copy != nullptr) must(ORP_UTIL_IsAddrInfoSame(list, copy) == 1, "a copy is the same");
  ORP_UTIL_FreeAddrInfo(list);
  ORP_UTIL_FreeAddrInfo(copy);
  if (copy == nullptr) return false;

  const auto server = static_cast<int32_t>(ORP_UTIL_SocketCreateServer("127.0.0.1", 4711, 0));
  if (server < 0) return false;
  const bool closed = succeeded(static_cast<int32_t>(ORP_UTIL_SocketClose(server)), {-1});
  ORP_UTIL_DEV_STATS_ST stats = {};
  stats.rx_nohandler = 0xeeeeeeee;
  ORP_UTIL_GetDevStats("lo", &stats);
  uint8_t mac[ORP_MAC_SIZE];
  ORP_UTIL_GetBytesMacAddress("lo", mac);
  return closed && stats.rx_nohandler != 0xeeeeeeee;
}

bool files() {
  const char *from = "/var/tmp/from", *to = "/var/tmp/to";
  const int fd = ::open(from, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const char line[] = "host 10.11.12.13 mac 00:11:22:33:44:55\n";
  const bool written = ::write(fd, line, sizeof line - 1) == sizeof line - 1;
  if (::close(fd) != 0 || !written) return false;
  ::unlink(to);
  ORP_UTIL_CopyFile(from, to);
  const uint32_t blurred = ORP_BLUR_File(from);
  uint32_t *pids = ORP_UTIL_FindPidByName("torture");
  std::free(pids);
  const int nameless = ::open("/var/tmp", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0400);
  if (nameless < 0) return false;
  struct stat of_nameless {};
  must(::fstat(nameless, &of_nameless) == 0 && (of_nameless.st_mode & 07777) == 0400,
       "a file without a name has the mode that it was made with");
  if (::close(nameless) != 0) return false;
  const bool allowed = ORP_UTIL_IsPathAllowAccess("/var/tmp", from) == ORP_PATH_ALLOWED;
  struct stat status {};
  return allowed && blurred == 0 && pids != nullptr && ::stat(to, &status) == 0 &&
         status.st_size == sizeof line - 1;
}

constexpr Scenario kUtilityScenarios[] = {
    {"command", command}, {"data", data},       {"dns", dns},
    {"files", files},     {"network", network}, {"ring_file", ring_file},
    {"spawn", spawn},     {"store", store},     {"text", text},
};

}  // namespace

std::span<const Scenario> utility_scenarios() {
  return kUtilityScenarios;
}

}  // namespace torture
