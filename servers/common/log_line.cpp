#include "common/log_line.h"

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>

namespace servers {
namespace {

std::string g_name = "server";
uint64_t g_dropped;

// A pipe that polls writable takes PIPE_BUF bytes without blocking; a longer line is cut to that.
constexpr size_t kLongestLine = 4096;

bool takes_a_line() {
  pollfd error{STDERR_FILENO, POLLOUT, 0};
  return ::poll(&error, 1, 0) == 1 && (error.revents & POLLOUT) != 0;
}

std::string time_stamp() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  tm utc{};
  ::gmtime_r(&now.tv_sec, &utc);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", utc.tm_year + 1900,
                     utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                     now.tv_nsec / 1000000);
}

}  // namespace

void set_log_name(std::string_view name) {
  g_name = name;
}

void write_log_line(std::string_view text) {
  if (!takes_a_line()) {
    ++g_dropped;
    return;
  }
  std::string line = fmt::format("{} {}[{}]: ", time_stamp(), g_name, ::getpid());
  if (g_dropped > 0) line += fmt::format("({} lines dropped) ", std::exchange(g_dropped, 0));
  line += text;
  if (line.size() > kLongestLine - 1) line.resize(kLongestLine - 1);
  for (char &c : line) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  line += '\n';
  if (::write(STDERR_FILENO, line.data(), line.size()) < 0) ++g_dropped;
}

}  // namespace servers
