// event_source RATE SECONDS: publishes RATE events a second on the bus. The payload of each has the
// time of its publishing (seconds since 1970, with a fraction). Prints how many there were. For
// bench/fleet.sh, which starts the servers.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "msgapi.h"

int main(int argc, char **argv) {
  using std::chrono::steady_clock;
  const double rate = argc == 3 ? std::atof(argv[1]) : 0;
  const double seconds = argc == 3 ? std::atof(argv[2]) : 0;
  if (rate <= 0 || seconds <= 0) {
    std::fprintf(stderr, "usage: event_source RATE SECONDS\n");
    return 2;
  }
  if (ORP_MSG_InitWithoutHandle("source") != ORP_OK) {
    std::fprintf(stderr, "event_source: no message server\n");
    return 3;
  }
  const auto begin = steady_clock::now();
  const auto count = static_cast<long>(rate * seconds);
  for (long published = 0; published < count; ++published) {
    const auto due = begin + std::chrono::duration<double>(static_cast<double>(published) / rate);
    // Sleeping ends some tens of microseconds late: events that are due by then follow at once.
    if (due > steady_clock::now()) {
      std::this_thread::sleep_until(std::chrono::time_point_cast<steady_clock::duration>(due));
    }
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const std::string sent = std::to_string(std::chrono::duration<double>(now).count());
    if (ORP_EVT_PublishEvent(ORP_MSG_EVENT_WAN, "Count", "sent", sent.c_str()) != ORP_OK) {
      std::fprintf(stderr, "event_source: event %ld could not be published\n", published);
      return 1;
    }
  }
  const std::chrono::duration<double> took = steady_clock::now() - begin;
  std::printf("published %ld events in %.2f s, %.0f a second\n", count, took.count(),
              static_cast<double>(count) / took.count());
  ORP_MSG_Destroy();
  return 0;
}
