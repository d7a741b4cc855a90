// Module log client: formats log lines and requests and exchanges them with the log server.
//
// A socket is opened for every line and closed after it. There is no connection to lose, no queue
// to overflow, and no state between calls except the time of the last complaint. So a log call
// works in any thread at any time. A line that cannot be sent goes to standard error.

#include "log/client.h"

#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/copy_failure.h"
#include "base/text.h"
#include "log/transport.h"
#include "os/clock.h"
#include "os/file.h"

namespace msgapi::log {
namespace {

constexpr size_t kTextSize = 256;
constexpr char kShareTag[] = "[SHARE]";
constexpr uint32_t kComplaintEvery_s = 60;

struct LevelName {
  const char *name;
  uint32_t level;
};

// Lines show the first name of a level. It has four characters so that columns stay aligned.
constexpr LevelName kLevelNames[] = {
    {"NONE", MLOG_LEVEL_NONE},  {"FATL", MLOG_LEVEL_FATAL},  {"FATAL", MLOG_LEVEL_FATAL},
    {"ERRO", MLOG_LEVEL_ERROR}, {"ERROR", MLOG_LEVEL_ERROR}, {"WARN", MLOG_LEVEL_WARN},
    {"INFO", MLOG_LEVEL_INFO},
};

const char *level_name(uint32_t level) {
  const auto *entry = std::find_if(std::begin(kLevelNames), std::end(kLevelNames),
                                   [=](const LevelName &e) { return e.level == level; });
  return entry == std::end(kLevelNames) ? "NONE" : entry->name;
}

uint32_t level_of(std::string_view name) {
  // strncasecmp also ends at the table's NUL, so a name longer than the table's never matches.
  const auto *entry = std::find_if(
      std::begin(kLevelNames), std::end(kLevelNames),
      [=](const LevelName &e) { return ::strncasecmp(e.name, name.data(), name.size()) == 0; });
  return entry == std::end(kLevelNames) ? MLOG_LEVEL_NONE : entry->level;
}

int64_t uptime_ms() {
  os::RawTime now;
  if (!os::read_clock(CLOCK_BOOTTIME, &now)) {
    std::printf("[MLOG][ERROR][%d]: get up time failed\n", __LINE__);
    return 0;
  }
  return int64_t{now.seconds} * 1000 + now.nanoseconds / 1000000;
}

// The bytes that follow the first one of a UTF-8 character (RFC 3629, section 4) at the beginning
// of `text`; 0 if there is no character of several bytes.
size_t following_bytes(std::string_view text) {
  const auto byte = [text](size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u;
  };
  const unsigned first = byte(0);
  if (first < 0xC2 || first > 0xF4) return 0;
  const size_t count = first < 0xE0 ? 1 : first < 0xF0 ? 2 : 3;
  for (size_t i = 1; i <= count; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  return count;
}

// Writes one line to standard error. The text may come from anywhere: it must neither begin another
// line nor control a terminal, which C1 control characters also do, alone or as UTF-8.
void print_error_line(std::span<char> line) {
  const std::span<char> text = line.first(std::strlen(line.data()));
  for (size_t i = 0; i < text.size(); ++i) {
    const auto first = static_cast<unsigned char>(text[i]);
    const size_t following = following_bytes({text.data() + i, text.size() - i});
    const bool control = first < 0x20 || (first >= 0x7F && first < 0xA0);
    if (control) text[i] = '?';
    if (first == 0xC2 && following == 1 && static_cast<unsigned char>(text[i + 1]) < 0xA0) {
      text[i] = text[i + 1] = '?';
    }
    i += following;
  }
  std::fprintf(stderr, "%s\n", line.data());
}

// Prints a line that the log server does not get and, at most once a minute, the reason: the path
// or name that failed (null: the module's name as a whole) and errno.
void print_lost_line(const char *module, uint32_t level, const char *text, const char *path) {
  // By the boot-time clock: 0 only in a process that has never complained.
  static std::atomic<uint32_t> last_complaint_s{0};
  const int reason = errno;
  const int64_t now_ms = uptime_ms();

  char line[512];
  const auto now_s = static_cast<uint32_t>(now_ms / 1000) + 1;
  uint32_t last_s = last_complaint_s.load(std::memory_order_relaxed);
  if ((last_s == 0 || now_s - last_s >= kComplaintEvery_s) &&
      last_complaint_s.compare_exchange_strong(last_s, now_s, std::memory_order_relaxed)) {
    errno = reason;
    if (path != nullptr) {
      format_cut(line, "mlog: %s: %m; log lines are printed here until the log server takes them",
                 path);
    } else {
      format_cut(line, "mlog: nothing can be logged as module %s: %m; its lines are printed here",
                 module);
    }
    print_error_line(line);
  }

  const size_t length = std::strlen(text);
  const bool ends_line = length > 0 && text[length - 1] == '\n';
  format_cut(line, "mlog: [%011lld][%s][%s]:%.*s", static_cast<long long>(now_ms), module,
             level_name(level), static_cast<int>(length - (ends_line ? 1 : 0)), text);
  print_error_line(line);
}

// Fills the message with one line of `text`, its line feed and its NUL.
bool build_line(MlogMsg *message, const char *module, uint32_t level, const char *text) {
  if (!format_exact(message->payload, "[%011lld][%s][%s]:%s", static_cast<long long>(uptime_ms()),
                    module, level_name(level), text)) {
    print_copy_failure("snprintf_s", -1);
    std::printf("[MLOG][ERROR][%d]: generate log buffer failed\n", __LINE__);
    return false;
  }

  size_t length = std::strlen(message->payload);
  if (message->payload[length - 1] != '\n' && length <= sizeof message->payload - 2) {
    message->payload[length++] = '\n';
    message->payload[length] = '\0';
  }
  message->type = MLOG_TYPE_LOG;
  message->length = static_cast<uint32_t>(length) + 1;
  return true;
}

// False, with the text cut, when it does not fit.
__attribute__((format(printf, 2, 0))) bool format_text(std::span<char> out, const char *format,
                                                       va_list arguments) {
  const int callers_errno = errno;  // for %m
  va_list again;
  va_copy(again, arguments);
  const bool fits = vformat_exact(out, format, arguments);
  if (!fits) {
    print_copy_failure("vsnprintf_s", -1);
    errno = callers_errno;
    vformat_cut(out, format, again);
    errno = EMSGSIZE;
  }
  va_end(again);
  return fits;
}

// Opens the socket of one line; errno says why there is none.
class LineSocket {
 public:
  explicit LineSocket(const char *module) : socket_(module), error_(errno) {
    if (socket_) return;
    std::printf("[MLOG][ERROR][%d]: open socket for module %s failed\n", __LINE__, module);
  }

  explicit operator bool() const { return static_cast<bool>(socket_); }
  int fd() const { return socket_.fd(); }
  int error() const { return error_; }

 private:
  ClientSocket socket_;
  int error_;
};

// Sends a line, or prints it where that is not possible.
void send_line(const LineSocket &socket, const char *module, uint32_t level, const char *text) {
  if (!socket) {
    errno = socket.error();
    print_lost_line(module, level, text, nullptr);
    return;
  }

  MlogMsg message{};
  if (!build_line(&message, module, level, text)) {
    std::printf("[MLOG][ERROR][%d]: build message buffer of module %s failed\n", __LINE__, module);
    print_lost_line(module, level, text, "text of a log call");
    return;
  }
  if (send_message(socket.fd(), &message, MLOG_SERVER_NAME) != Status::kOk) {
    const int reason = errno;
    std::printf("[MLOG][ERROR][%d]: mlog send message failed\n", __LINE__);
    errno = reason;
    print_lost_line(module, level, text, MLOG_IPC_PATH MLOG_SERVER_NAME);
  }
  if (level < MLOG_LEVEL_ERROR) {
    std::printf("[MLOG][INFO][%d]: mlog message buffer: %s\n", __LINE__, message.payload);
  }
}

// A text that is too long is not sent.
__attribute__((format(printf, 3, 0))) void print_whole_line(const char *module, uint32_t level,
                                                            const char *format, va_list arguments) {
  const int callers_errno = errno;
  const LineSocket socket(module);

  char text[kTextSize];
  errno = callers_errno;
  if (!format_text(text, format, arguments) && socket) {
    std::printf("[MLOG][ERROR][%d]: get print log buffer for module %s failed\n", __LINE__, module);
    print_lost_line(module, level, text, "text of a log call");
    return;
  }
  send_line(socket, module, level, text);
}

// A text that is too long is cut, and sent only when `wanted`.
__attribute__((format(printf, 4, 0))) void print_cut_line(bool wanted, const char *module,
                                                          uint32_t level, const char *format,
                                                          va_list arguments) {
  if (module == nullptr || format == nullptr) {
    std::printf("[MLOG][ERROR][%d]: input parameter is invalid\n", __LINE__);
    return;
  }
  char text[kTextSize];
  if (!vformat_cut(text, format, arguments)) {
    std::printf("[MLOG][ERROR][%d]: generate log buffer of module %s failed\n", __LINE__, module);
    return;
  }
  if (wanted) send_line(LineSocket(module), module, level, text);
}

// The name of a socket that lives for one request of this process, "STAT_1234".
struct RequestName {
  explicit RequestName(const char *word) {
    valid = format_exact(text, "%s_%d", word, static_cast<int>(::getpid()));
    if (!valid) print_copy_failure("snprintf_s", -1);
  }
  char text[16];
  bool valid;
};

bool copy_field(std::span<char> out, std::string_view text) {
  const bool fits = copy_exact(out, text);
  if (!fits) print_copy_failure("memcpy_s", ERANGE);
  return fits;
}

Status set_statistics(const char *module, const char *info) {
  const RequestName name("STAT");
  if (!name.valid) return Status::kFailed;
  const ClientSocket socket(name.text);
  if (!socket) return Status::kNoSocket;

  MlogMsg message{.type = MLOG_TYPE_SET_STAT, .length = sizeof(MlogStat), .payload = {}};
  MlogStat fields{};
  if (!copy_field(fields.module, module) || !copy_field(fields.info, info)) return Status::kFailed;
  std::memcpy(message.payload, &fields, sizeof fields);

  if (send_message(socket.fd(), &message, MLOG_SERVER_NAME) != Status::kOk) {
    std::printf("[MLOG][ERROR][%d]: mlog send message error\n", __LINE__);
    return Status::kFailed;
  }
  return Status::kOk;
}

Status get_statistics(const char *module, std::span<char> out) {
  MlogMsg message{.type = MLOG_TYPE_GET_STAT, .length = sizeof(MlogStat), .payload = {}};
  MlogStat fields{};
  {
    const RequestName name("STAT");
    if (!name.valid) return Status::kFailed;
    const ClientSocket socket(name.text);
    if (!socket) return Status::kNoSocket;

    if (!copy_field(fields.module, module)) return Status::kFailed;
    std::memcpy(message.payload, &fields, sizeof fields);
    if (exchange_in_time(socket.fd(), &message) != Status::kOk) {
      std::printf("[MLOG][ERROR][%d]: mlog send and receive message error\n", __LINE__);
      return Status::kFailed;
    }
  }

  // A shorter answer leaves the zeroes of the request in place.
  std::memcpy(&fields, message.payload, sizeof fields);
  return copy_field(out, field_text(fields.info)) ? Status::kOk : Status::kFailed;
}

Status flush() {
  const RequestName name("FLUSH");
  if (!name.valid) return Status::kFailed;
  const ClientSocket socket(name.text);
  if (!socket) return Status::kNoSocket;

  MlogMsg message{.type = MLOG_TYPE_FLUSH, .length = 0, .payload = {}};
  const Status result = exchange_in_time(socket.fd(), &message);
  if (result != Status::kOk) {
    std::printf("[MLOG][ERROR][%d]: mlog send and receive message failed, ret: %d\n", __LINE__,
                code(result));
    return Status::kFailed;
  }
  return Status::kOk;
}

bool uses_share_partition() {
  const os::UniqueFile file(std::fopen("/var/mlog/mlogcfg", "re"));
  if (!file) return false;

  constexpr size_t kTagLength = sizeof kShareTag - 1;
  char line[1024];
  while (std::fgets(line, sizeof line, file.get()) != nullptr) {
    if (::strncasecmp(line, kShareTag, kTagLength) != 0) continue;
    const char *value = std::strchr(line + kTagLength, '=');
    // As atoi() reads: only what fits an int counts.
    return value != nullptr && static_cast<int>(std::strtol(value + 1, nullptr, 10)) != 0;
  }
  return false;
}

}  // namespace

void print(const char *module, uint32_t level, const char *format, ...) {
  const int saved = errno;
  va_list arguments;
  va_start(arguments, format);
  print_cut_line(true, module, level, format, arguments);
  va_end(arguments);
  errno = saved;
}

}  // namespace msgapi::log

using namespace msgapi;

extern "C" const char *MlogGetLogLevelString(uint32_t level) {
  return log::level_name(level);
}

extern "C" uint32_t MlogGetLogLevel(const char *name) {
  return name == nullptr ? MLOG_LEVEL_NONE : log::level_of(name);
}

extern "C" void MlogPrint(const char *module, uint32_t level, const char *format, ...) {
  if (module == nullptr || format == nullptr) return;
  const int saved = errno;
  va_list arguments;
  va_start(arguments, format);
  log::print_whole_line(module, level, format, arguments);
  va_end(arguments);
  errno = saved;
}

extern "C" void mlog_print(const char *module, uint32_t level, const char *format, ...) {
  const int saved = errno;
  va_list arguments;
  va_start(arguments, format);
  log::print_cut_line(true, module, level, format, arguments);
  va_end(arguments);
  errno = saved;
}

extern "C" void MlogPrintWithType(uint32_t printType, const char *module, uint32_t level,
                                  const char *format, ...) {
  const int saved = errno;
  va_list arguments;
  va_start(arguments, format);
  log::print_cut_line(printType == 1 || printType == 3, module, level, format, arguments);
  va_end(arguments);
  errno = saved;
}

extern "C" int32_t MlogSetStatInfo(const char *module, const char *info) {
  return module == nullptr || info == nullptr ? MLOG_ERR : code(log::set_statistics(module, info));
}

extern "C" int32_t MlogGetStatInfo(const char *module, char *buf, uint32_t bufSize) {
  if (buf == nullptr || bufSize == 0) return MLOG_ERR;
  buf[0] = '\0';
  return module == nullptr ? MLOG_ERR : code(log::get_statistics(module, {buf, bufSize}));
}

extern "C" int32_t MlogFlushLog(void) {
  return code(log::flush());
}

extern "C" int32_t MlogUseSharePartion(void) {
  return log::uses_share_partition() ? 1 : 0;
}
