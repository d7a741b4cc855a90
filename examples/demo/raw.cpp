// What this machine allows: `demo_raw COUNT` measures round trips of messages' headers between
// processes, by the way that a request takes, from the asker by a relay to the one who answers and
// back, but with nobody who looks at them. Prints what `msgctl ping` prints.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "msgapi/msg.h"

namespace {

bool pass(int from, int to) {
  char message[ORP_MSG_HEADER_SIZE];
  return ::recv(from, message, sizeof message, MSG_WAITALL) == sizeof message &&
         ::send(to, message, sizeof message, MSG_NOSIGNAL) == sizeof message;
}

}  // namespace

int main(int argc, char **argv) {
  const size_t count = argc == 2 ? std::strtoul(argv[1], nullptr, 10) : 0;
  if (count == 0 || count > 10'000'000) {
    std::fprintf(stderr, "usage: demo_raw COUNT\n");
    return 2;
  }
  int outer[2], inner[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, outer) != 0 ||
      ::socketpair(AF_UNIX, SOCK_STREAM, 0, inner) != 0) {
    std::perror("demo_raw: socketpair");
    return 1;
  }
  // Each ends when the one before it does.
  if (::fork() == 0) {
    for (const int other : {outer[0], outer[1], inner[0]}) ::close(other);
    while (pass(inner[1], inner[1])) continue;
    ::_exit(0);
  }
  if (::fork() == 0) {
    for (const int other : {outer[0], inner[1]}) ::close(other);
    while (pass(outer[1], inner[0]) && pass(inner[0], outer[1])) continue;
    ::_exit(0);
  }
  for (const int other : {outer[1], inner[0], inner[1]}) ::close(other);

  using Clock = std::chrono::steady_clock;
  const char message[ORP_MSG_HEADER_SIZE] = {};
  std::vector<double> took_us;
  took_us.reserve(count);
  const auto start = Clock::now();
  while (took_us.size() < count) {
    const auto sent = Clock::now();
    char answer[sizeof message];
    if (::send(outer[0], message, sizeof message, MSG_NOSIGNAL) != sizeof message ||
        ::recv(outer[0], answer, sizeof answer, MSG_WAITALL) != sizeof answer) {
      std::perror("demo_raw");
      return 1;
    }
    took_us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
  }
  const double all_s = std::chrono::duration<double>(Clock::now() - start).count();
  std::sort(took_us.begin(), took_us.end());
  std::printf(
      "%zu round trips: min %.1f us, median %.1f us, p99 %.1f us, max %.1f us, %.0f a second\n",
      count, took_us.front(), took_us[count / 2], took_us[count * 99 / 100], took_us.back(),
      static_cast<double>(count) / all_s);
  return 0;
}
