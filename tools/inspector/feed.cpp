#include "inspector/feed.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "common/exit_status.h"
#include "common/unique_fd.h"
#include "msgctl/flight_source.h"
#include "traffic/pcapng.h"

namespace inspector {
namespace {

using servers::ExitStatus;
using servers::Failure;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTurn(15);
// How much of a turn may be spent on reading: the bus gets the rest of the processor.
constexpr std::chrono::milliseconds kReading(6);
constexpr std::chrono::milliseconds kRetry(250);
// Records read in one go: other threads wait for the lock so long.
constexpr int kAtOnce = 256;

uint64_t now_us() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000u + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

void begin_server(Bus *bus, uint32_t body_limit) {
  const std::lock_guard lock(bus->mutex);
  bus->recording.begin_server(body_limit);
  ++bus->servers;
  bus->server_at_us = now_us();
  bus->news.notify_all();
}

// Calls `use` for every record. Returns what is wrong with the file, else "".
template <typename Use>
std::string walk_flight(flight::Reader *reader, Use use) {
  flight::Entry entry;
  uint64_t bytes = 0;
  while (bytes <= reader->head().ring_size) {
    switch (reader->next(&entry)) {
      case flight::Reader::Next::kNothing:
        return {};
      case flight::Reader::Next::kDamaged:
        return "the ring is damaged after what is shown";
      case flight::Reader::Next::kEntry:
        break;
    }
    bytes += entry.record.size;
    use(entry, reader->wall_ns(entry.record.time_ns));
  }
  return {};
}

template <typename Use>
std::string walk_capture(std::string_view bytes, Use use) {
  try {
    traffic::PcapngReader reader(bytes);
    while (const std::optional<traffic::Packet> packet = reader.next()) use(*packet);
  } catch (const std::runtime_error &error) {
    return error.what();
  }
  return {};
}

constexpr off_t kLargestFile = off_t{1} << 30;
constexpr std::string_view kCaptureBegin = "\x0a\x0d\x0d\x0a";

// A capture, copied instead of mapped, because somebody may cut the file short at any time; none of
// another file.
std::optional<std::string> capture_in(const std::string &path) {
  const servers::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  const auto fail = [&path] {
    throw Failure(errno == EACCES ? ExitStatus::kNotPermitted : ExitStatus::kNoSuch,
                  path + ": " + std::strerror(errno));
  };
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) fail();
  if (!S_ISREG(status.st_mode) || status.st_size == 0) {
    throw Failure(ExitStatus::kBadBody, path + ": this is no capture and no flight file");
  }
  std::string bytes(kCaptureBegin.size(), '\0');
  size_t have = 0;
  const auto read_rest = [&] {
    while (have < bytes.size()) {
      const ssize_t count = ::read(fd.get(), bytes.data() + have, bytes.size() - have);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) fail();
      if (count == 0) break;
      have += static_cast<size_t>(count);
    }
  };
  read_rest();
  if (bytes != kCaptureBegin) return std::nullopt;
  if (status.st_size > kLargestFile) {
    throw Failure(ExitStatus::kBadBody, path + ": is larger than 1 GiB; capture less of it");
  }
  bytes.resize(std::max(bytes.size(), static_cast<size_t>(status.st_size)));
  read_rest();
  bytes.resize(have);
  return bytes;
}

// What is to be known of all records before the first is taken.
struct Extent {
  uint64_t count = 0, first_ns = ~uint64_t{0}, last_ns = 0;
  size_t most_kept = 0;

  void add(const flight::Entry &entry, uint64_t wall_ns) {
    ++count;
    first_ns = std::min(first_ns, wall_ns);
    last_ns = std::max(last_ns, wall_ns);
    most_kept = std::max(most_kept, entry.kept.size());
  }
  uint64_t span_ns() const { return count == 0 ? 0 : last_ns - first_ns; }
  uint32_t body_limit() const {
    return static_cast<uint32_t>(std::min<size_t>(most_kept, flight::kMostKept));
  }
};

// `problem`: how the first look at the file ended.
void begin_past(Bus *bus, const std::string &path, const Extent &extent,
                const std::string &problem) {
  if (extent.count == 0 && !problem.empty()) {
    throw Failure(ExitStatus::kBadBody, path + ": " + problem);
  }
  bus->source = path;
  bus->recording.begin_past(extent.count, extent.span_ns());
}

std::string load_capture(Bus *bus, const std::string &path, std::string_view bytes) {
  Extent extent;
  std::string problem = walk_capture(bytes, [&extent](const traffic::Packet &packet) {
    extent.add(packet.entry(), packet.wall_ns);
  });
  begin_past(bus, path, extent, problem);
  uint32_t section = 0;
  walk_capture(bytes, [&](const traffic::Packet &packet) {
    if (packet.section != section) begin_server(bus, extent.body_limit());
    section = packet.section;
    // A part of a recording may lack the records that name the clients.
    for (const auto &[id, label] :
         {std::pair(packet.record.from, packet.from), std::pair(packet.record.to, packet.to)}) {
      const std::string name = traffic::name_in_label(label);
      if (!name.starts_with('#')) bus->recording.name_client(id, name);
    }
    bus->recording.take(packet.entry(), packet.wall_ns);
  });
  return problem;
}

std::string load_flight(Bus *bus, const std::string &path) {
  flight::Reader reader = msgctl::open_flight(path);
  Extent extent;
  std::string problem = walk_flight(
      &reader,
      [&extent](const flight::Entry &entry, uint64_t wall_ns) { extent.add(entry, wall_ns); });
  begin_past(bus, path, extent, problem);
  begin_server(bus, extent.body_limit());
  reader.rewind();
  walk_flight(&reader, [bus](const flight::Entry &entry, uint64_t wall_ns) {
    bus->recording.take(entry, wall_ns);
  });
  return problem;
}

}  // namespace

void load_past(Bus *bus, const std::string &path) {
  const std::optional<std::string> capture = capture_in(path);
  std::string problem = capture ? load_capture(bus, path, *capture) : load_flight(bus, path);
  const SourceState state = problem.empty() ? SourceState::kPast : SourceState::kDamaged;
  bus->set_state(state, std::move(problem));
}

Feed::Feed(Bus *bus, std::string path) : bus_(bus), path_(std::move(path)) {
  bus_->source = path_;
  thread_ = std::thread([this] { run(); });
}

Feed::~Feed() {
  bus_->end();
  thread_.join();
}

bool Feed::rest() {
  std::unique_lock lock(bus_->mutex);
  const auto pause = reader_ ? kTurn - kReading : kRetry;
  return !bus_->news.wait_for(lock, pause, [this] { return bus_->ends; });
}

void Feed::run() {
  do {
    if (reader_ || open()) turn();
  } while (rest());
}

bool Feed::open() {
  try {
    reader_.emplace(msgctl::open_flight(path_));
  } catch (const Failure &failure) {
    bus_->set_state(SourceState::kWaiting, failure.what());
    return false;
  }
  damaged_ = false;
  begin_server(bus_, reader_->head().body_limit);
  look_after_server();
  return true;
}

// Reads some records; true when there may be more.
bool Feed::read_some() {
  const std::lock_guard lock(bus_->mutex);
  flight::Entry entry;
  for (int i = 0; i < kAtOnce; ++i) {
    const flight::Reader::Next next = reader_->next(&entry);
    damaged_ = next == flight::Reader::Next::kDamaged;
    if (next != flight::Reader::Next::kEntry) {
      if (i > 0) bus_->news.notify_all();
      return false;
    }
    ++read_;
    bus_->recording.take(entry, reader_->wall_ns(entry.record.time_ns));
  }
  bus_->news.notify_all();
  return true;
}

void Feed::turn() {
  const bool replaced = reader_->replaced();
  const uint64_t before = read_;
  const Clock::time_point end = Clock::now() + kReading;
  while (!damaged_ && read_some() && Clock::now() < end) {
  }
  // The new file is opened only when everything that the old server wrote has been read.
  if (replaced && read_ == before && ::access(path_.c_str(), R_OK) == 0) {
    reader_.reset();
    open();
    return;
  }
  look_after_server();
}

void Feed::look_after_server() {
  const auto pid = static_cast<pid_t>(reader_->head().pid);
  const bool there = pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM);
  if (damaged_) {
    bus_->set_state(SourceState::kDamaged, path_ + ": the ring is damaged after what is shown");
  } else if (there) {
    bus_->set_state(SourceState::kLive);
  } else {
    bus_->set_state(SourceState::kEnded, "the message server has ended; waiting for the next");
  }
}

}  // namespace inspector
