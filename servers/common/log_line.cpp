#include "common/log_line.h"

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>

#include "common/printable.h"

namespace servers {
namespace {

std::string g_name = "server";
std::atomic<uint64_t> g_dropped;  // threads write lines, too

// A pipe that polls writable takes PIPE_BUF bytes without blocking; a longer line is cut to that.
constexpr size_t kLongestLine = 4096;

bool takes_a_line() {
  pollfd error{STDERR_FILENO, POLLOUT, 0};
  return ::poll(&error, 1, 0) == 1 && (error.revents & POLLOUT) != 0;
}

// A line without memory of its own, so that it can say that there is none.
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

}  // namespace

void set_log_name(std::string_view name) {
  g_name = name;
}

void hide_controls(std::span<char> text) noexcept {
  for (size_t at = 0; at < text.size();) {
    const size_t length = printable_length({text.data() + at, text.size() - at});
    if (length == 0) text[at] = '?';
    at += std::max<size_t>(length, 1);
  }
}

void write_log_line(std::string_view text) noexcept {
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
}

}  // namespace servers
