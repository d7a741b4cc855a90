#include "common/log_line.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>

#include "common/printable.h"
#include "common/unique_fd.h"

namespace servers {
namespace {

std::string g_name = "server";
std::string g_module;  // empty: the log server gets no lines
UniqueFd g_log_socket;
std::atomic<uint64_t> g_dropped;  // threads write lines, too

// A pipe that polls writable takes PIPE_BUF bytes without blocking; a longer line is cut to that.
constexpr size_t kLongestLine = 4096;

bool takes_a_line() {
  pollfd error{STDERR_FILENO, POLLOUT, 0};
  return ::poll(&error, 1, 0) == 1 && (error.revents & POLLOUT) != 0;
}

// A line that allocates nothing, so that it can report a lack of memory.
class Line {
 public:
  template <typename... Arguments>
  void add(fmt::format_string<Arguments...> format, Arguments &&...arguments) {
    const size_t room = kRoom - size_;
    const auto result =
        fmt::format_to_n(text_.data() + size_, room, format, std::forward<Arguments>(arguments)...);
    size_ += std::min(result.size, room);
  }

  std::string_view finish() {
    hide_controls({text_.data(), size_});
    text_[size_++] = '\n';
    return {text_.data(), size_};
  }

 private:
  static constexpr size_t kRoom = kLongestLine - 1;
  std::array<char, kLongestLine> text_;
  size_t size_ = 0;
};

void add_time_stamp(Line *line) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  tm utc{};
  ::gmtime_r(&now.tv_sec, &utc);
  line->add("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", utc.tm_year + 1900, utc.tm_mon + 1,
            utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, now.tv_nsec / 1000000);
}

// Sends a line to the log server: a head of type and length, then the text with its NUL. Never
// waits for room in the server's queue. False when the server does not take the line.
bool send_line(std::string_view text) {
  constexpr size_t kHeadSize = 8;
  constexpr size_t kLongestPayload = 1016;
  constexpr char kServer[] = "/var/mlog/mlogServer";
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  std::array<char, kHeadSize + kLongestPayload> datagram;
  char *payload = datagram.data() + kHeadSize;
  const auto result =
      fmt::format_to_n(payload, kLongestPayload - 2, "[{:011}][{}][INFO]:{}",
                       int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000, g_module, text);
  size_t size = std::min(result.size, kLongestPayload - 2);
  hide_controls({payload, size});
  payload[size++] = '\n';
  payload[size++] = '\0';
  const std::array<uint32_t, 2> head = {1, static_cast<uint32_t>(size)};
  std::memcpy(datagram.data(), head.data(), kHeadSize);

  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, kServer, sizeof kServer);
  return ::sendto(g_log_socket.get(), datagram.data(), kHeadSize + size,
                  MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address),
                  sizeof address) >= 0;
}

}  // namespace

void set_log_name(std::string_view name) {
  g_name = name;
}

void send_log_as(std::string_view module) {
  g_module = module;
  g_log_socket.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

void hide_controls(std::span<char> text) noexcept {
  for (size_t at = 0; at < text.size();) {
    const size_t length = printable_length({text.data() + at, text.size() - at});
    if (length == 0) text[at] = '?';
    at += std::max<size_t>(length, 1);
  }
}

void write_log_line(std::string_view text) noexcept try {
  if (!g_module.empty() && send_line(text)) return;
  if (!takes_a_line()) {
    ++g_dropped;
    return;
  }
  Line line;
  add_time_stamp(&line);
  line.add(" {}[{}]: ", g_name, ::getpid());
  if (const uint64_t dropped = g_dropped.exchange(0)) line.add("({} lines dropped) ", dropped);
  line.add("{}", text);
  const std::string_view whole = line.finish();
  if (::write(STDERR_FILENO, whole.data(), whole.size()) < 0) ++g_dropped;
} catch (...) {
  // fmt throws only for a bad format, and the compiler has checked it.
  ++g_dropped;
}

}  // namespace servers
