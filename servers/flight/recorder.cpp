#include "flight/recorder.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

#include "common/unique_fd.h"

namespace flight {
namespace {

// A reader finds the wall clock near every record: at most so long or so many records away.
constexpr uint64_t kClockEvery_ns = 1'000'000'000;
constexpr uint64_t kClockEveryRecords = 256;

uint64_t clock_ns(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

[[noreturn]] void fail(const std::string &what, int error) {
  throw std::system_error(error, std::generic_category(), what);
}

std::atomic_ref<uint64_t> position(char *base, size_t offset) {
  return std::atomic_ref<uint64_t>(*reinterpret_cast<uint64_t *>(base + offset));
}

// A file of that size whose blocks are allocated. After a failure no name is left.
servers::UniqueFd make_file(const std::string &path, off_t size) {
  ::unlink(path.c_str());
  servers::UniqueFd fd(
      ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd) fail(path, errno);
  // Writing to a page that a full file system cannot provide raises SIGBUS (mmap(2)).
  const int error = ::posix_fallocate(fd.get(), 0, size);
  if (error != 0) {
    ::unlink(path.c_str());
    fail(path, error);
  }
  return fd;
}

}  // namespace

Recorder::Recorder(const std::string &path, uint64_t ring_size, uint32_t body_limit)
    : ring_size_(ring_size), body_limit_(std::min(body_limit, kMostKept)) {
  if (!std::has_single_bit(ring_size) || ring_size < kLeastRing || ring_size > kMostRing) {
    fail("size of the flight recorder", EINVAL);
  }
  const std::string fresh = path + ".new";
  const size_t size = static_cast<size_t>(kRingOffset + ring_size);
  const servers::UniqueFd fd = make_file(fresh, static_cast<off_t>(size));
  void *memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (memory == MAP_FAILED) {
    const int error = errno;
    ::unlink(fresh.c_str());
    fail(fresh, error);
  }
  base_ = static_cast<char *>(memory);

  FileHead head{};
  std::memcpy(head.magic, kMagic, sizeof head.magic);
  head.version = little(kVersion);
  head.ring_offset = little(kRingOffset);
  head.ring_size = little(ring_size);
  head.wall_ns = little(clock_ns(CLOCK_REALTIME));
  head.monotonic_ns = little(clock_ns(CLOCK_MONOTONIC));
  head.pid = little(static_cast<uint32_t>(::getpid()));
  head.body_limit = little(body_limit_);
  std::memcpy(base_, &head, sizeof head);
  tick();

  // Whoever opens the file by its name finds one that is ready.
  if (::rename(path.c_str(), (path + ".1").c_str()) != 0 && errno != ENOENT) ::unlink(path.c_str());
  if (::rename(fresh.c_str(), path.c_str()) != 0) {
    const int error = errno;
    ::unlink(fresh.c_str());
    unmap();
    fail(path, error);
  }
}

Recorder::~Recorder() {
  unmap();
}

void Recorder::unmap() {
  if (base_ != nullptr) ::munmap(base_, static_cast<size_t>(kRingOffset + ring_size_));
  base_ = nullptr;
}

Recorder::Recorder(Recorder &&other) noexcept {
  *this = std::move(other);
}

Recorder &Recorder::operator=(Recorder &&other) noexcept {
  if (this == &other) return *this;
  unmap();
  base_ = std::exchange(other.base_, nullptr);
  ring_size_ = other.ring_size_;
  body_limit_ = other.body_limit_;
  head_ = other.head_;
  tail_ = other.tail_;
  number_ = other.number_;
  now_ns_ = other.now_ns_;
  next_clock_ns_ = other.next_clock_ns_;
  next_clock_number_ = other.next_clock_number_;
  return *this;
}

uint64_t Recorder::accepted(uint32_t from, uint32_t to, const void *header, uint32_t body_length,
                            std::span<const char> body) {
  if (!on()) return 0;
  Record record;
  record.kind = static_cast<uint8_t>(Kind::kAccepted);
  record.from = from;
  record.to = to;
  record.a = body_length;
  return write(record, header, body.first(std::min<size_t>(body.size(), body_limit_)));
}

uint64_t Recorder::delivered(uint64_t about, uint32_t from, uint32_t to, uint32_t type,
                             uint32_t sequence) {
  return fate(Kind::kDelivered, Loss::kNone, about, from, to, type, sequence);
}

uint64_t Recorder::lost(Loss loss, uint64_t about, uint32_t from, uint32_t to, uint32_t type,
                        uint32_t sequence) {
  return fate(Kind::kLost, loss, about, from, to, type, sequence);
}

uint64_t Recorder::note(Kind kind, Record facts, std::string_view text) {
  if (!on()) return 0;
  facts.kind = static_cast<uint8_t>(kind);
  return write(facts, nullptr, {text.data(), std::min<size_t>(text.size(), kMostKept)});
}

void Recorder::tick() {
  if (!on()) return;
  now_ns_ = clock_ns(CLOCK_MONOTONIC);
  if (now_ns_ < next_clock_ns_ && number_ < next_clock_number_) return;
  next_clock_ns_ = now_ns_ + kClockEvery_ns;
  next_clock_number_ = number_ + kClockEveryRecords;
  Record clock;
  clock.kind = static_cast<uint8_t>(Kind::kClock);
  clock.about = clock_ns(CLOCK_REALTIME);
  write(clock, nullptr, {});
}

uint64_t Recorder::fate(Kind kind, Loss loss, uint64_t about, uint32_t from, uint32_t to,
                        uint32_t type, uint32_t sequence) {
  if (!on()) return 0;
  Record record;
  record.kind = static_cast<uint8_t>(kind);
  record.loss = static_cast<uint8_t>(loss);
  record.about = about;
  record.from = from;
  record.to = to;
  record.a = type;
  record.b = sequence;
  return write(record, nullptr, {});
}

uint64_t Recorder::write(Record record, const void *header, std::span<const char> rest) {
  const size_t header_size = header == nullptr ? 0 : kHeaderSize;
  const size_t size = sizeof record + header_size + rest.size();
  record.size = static_cast<uint32_t>((size + 7) / 8 * 8);
  record.kept = static_cast<uint16_t>(rest.size());
  record.number = ++number_;
  record.time_ns = now_ns_;
  make_room(record.size);

  // A reader that looks at this memory meanwhile finds from the tail that it was too late.
  char *to = place(head_);
  head_ += record.size;
  record = little(record);
  std::memcpy(to, &record, sizeof record);
  if (header != nullptr) std::memcpy(to + sizeof record, header, kHeaderSize);
  if (!rest.empty()) std::memcpy(to + sizeof record + header_size, rest.data(), rest.size());
  position(base_, offsetof(FileHead, head)).store(little(head_), std::memory_order_release);
  return number_;
}

// Makes sure that the next `size` bytes from the head are in one piece and hold no record.
void Recorder::make_room(uint32_t size) {
  const uint64_t to_end = ring_size_ - (head_ & (ring_size_ - 1));
  const uint64_t filler = to_end < size ? to_end : 0;
  const uint64_t end = head_ + filler + size;
  if (end - tail_ > ring_size_) {
    do {
      uint32_t oldest;
      std::memcpy(&oldest, place(tail_), sizeof oldest);
      tail_ += little(oldest);
    } while (end - tail_ > ring_size_);
    position(base_, offsetof(FileHead, tail)).store(little(tail_), std::memory_order_relaxed);
    // Whoever sees a byte that is written after this also sees the new tail.
    std::atomic_thread_fence(std::memory_order_release);
  }
  if (filler == 0) return;
  // Eight bytes may be all there is, so a filler is not a whole record.
  const uint32_t words[2] = {little(static_cast<uint32_t>(filler)), 0};
  static_assert(offsetof(Record, kind) == 4 && static_cast<int>(Kind::kFiller) == 0);
  std::memcpy(place(head_), words, sizeof words);
  head_ += filler;
}

}  // namespace flight
