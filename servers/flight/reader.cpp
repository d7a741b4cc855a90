#include "flight/reader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "common/unique_fd.h"

namespace flight {
namespace {

// After so many copies that the writer overtook, the reader pauses and comes back later.
constexpr int kMostRetries = 64;

[[noreturn]] void fail(const std::string &path, const std::string &why) {
  throw std::runtime_error(path + ": " + why);
}

struct OpenFile {
  servers::UniqueFd fd;
  struct stat status {};
};

OpenFile open_file(const std::string &path) {
  OpenFile file{servers::UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))};
  if (!file.fd || ::fstat(file.fd.get(), &file.status) != 0) {
    fail(path, errno == ENOENT   ? "there is no such file; is msgsvr running, with --flight?"
               : errno == EACCES ? "only the server's own user may read it"
                                 : std::strerror(errno));
  }
  if (!S_ISREG(file.status.st_mode)) fail(path, "this is no regular file");
  if (static_cast<uint64_t>(file.status.st_size) < kRingOffset + kLeastRing ||
      static_cast<uint64_t>(file.status.st_size) > kRingOffset + kMostRing) {
    fail(path, "this is no file of the flight recorder (its size cannot be)");
  }
  return file;
}

// The writer moves the tail before it overwrites anything. So whatever lies behind the present tail
// is whole in the copy.
void drop_overwritten(int fd, char *copied_head) {
  // Only after every byte is copied.
  std::atomic_thread_fence(std::memory_order_acquire);
  FileHead now;
  if (::pread(fd, &now, sizeof now, 0) != static_cast<ssize_t>(sizeof now)) return;
  FileHead then;
  std::memcpy(&then, copied_head, sizeof then);
  const uint64_t tail = std::min(little(now.tail), little(then.head));
  if (tail < little(then.tail)) return;
  then.tail = little(tail);
  std::memcpy(copied_head, &then, sizeof then);
}

}  // namespace

Reader Reader::follow(const std::string &path) {
  const OpenFile file = open_file(path);
  Reader reader;
  reader.path_ = path;
  reader.device_ = file.status.st_dev;
  reader.inode_ = file.status.st_ino;
  const size_t size = static_cast<size_t>(file.status.st_size);
  void *memory = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, file.fd.get(), 0);
  if (memory == MAP_FAILED) fail(path, std::strerror(errno));
  reader.base_ = static_cast<const char *>(memory);
  reader.mapped_ = size;
  reader.start();
  return reader;
}

Reader Reader::load(const std::string &path) {
  const OpenFile file = open_file(path);
  std::vector<char> bytes(static_cast<size_t>(file.status.st_size));
  size_t have = 0;
  while (have < bytes.size()) {
    const ssize_t count = ::read(file.fd.get(), bytes.data() + have, bytes.size() - have);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) fail(path, std::strerror(errno));
    if (count == 0) break;
    have += static_cast<size_t>(count);
  }
  bytes.resize(have);
  if (have >= sizeof(FileHead)) drop_overwritten(file.fd.get(), bytes.data());
  try {
    return Reader(std::move(bytes));
  } catch (const std::runtime_error &error) {
    fail(path, error.what());
  }
}

Reader::Reader(std::vector<char> bytes) : bytes_(std::move(bytes)), base_(bytes_.data()) {
  start();
}

Reader::~Reader() {
  if (mapped_ != 0) ::munmap(const_cast<char *>(base_), mapped_);
}

Reader::Reader(Reader &&other) noexcept {
  *this = std::move(other);
}

Reader &Reader::operator=(Reader &&other) noexcept {
  if (this == &other) return *this;
  if (mapped_ != 0) ::munmap(const_cast<char *>(base_), mapped_);
  bytes_ = std::move(other.bytes_);
  base_ = std::exchange(other.base_, nullptr);
  mapped_ = std::exchange(other.mapped_, 0);
  path_ = std::move(other.path_);
  device_ = other.device_;
  inode_ = other.inode_;
  head_ = other.head_;
  at_ = other.at_;
  skipped_ = other.skipped_;
  buffer_ = std::move(other.buffer_);
  first_number_ = other.first_number_;
  last_number_ = other.last_number_;
  seen_ = other.seen_;
  missed_ = other.missed_;
  wall_minus_monotonic_ = other.wall_minus_monotonic_;
  return *this;
}

void Reader::start() {
  const size_t size = mapped_ != 0 ? mapped_ : bytes_.size();
  const auto refuse = [this](const char *why) { fail(path_.empty() ? "flight file" : path_, why); };
  if (size < sizeof head_) refuse("it is too short");
  std::memcpy(&head_, base_, sizeof head_);
  head_.version = little(head_.version);
  head_.ring_offset = little(head_.ring_offset);
  head_.ring_size = little(head_.ring_size);
  head_.wall_ns = little(head_.wall_ns);
  head_.monotonic_ns = little(head_.monotonic_ns);
  head_.pid = little(head_.pid);
  head_.body_limit = little(head_.body_limit);
  head_.head = little(head_.head);
  head_.tail = little(head_.tail);
  if (std::memcmp(head_.magic, kMagic, sizeof kMagic) != 0) {
    refuse("this is no file of the flight recorder");
  }
  if (head_.version != kVersion) refuse("it is of another version");
  if (head_.ring_offset != kRingOffset || !std::has_single_bit(head_.ring_size) ||
      head_.ring_size < kLeastRing || head_.ring_size > kMostRing ||
      size != kRingOffset + head_.ring_size) {
    refuse("its size is not what it says");
  }
  buffer_ = std::make_unique<uint64_t[]>(kMostRecord / sizeof(uint64_t) + 1);
  rewind();
}

uint64_t Reader::position(size_t offset) const {
  // The mapping cannot be written, but an atomic load does not write, either.
  uint64_t *word = reinterpret_cast<uint64_t *>(const_cast<char *>(base_ + offset));
  return little(std::atomic_ref<uint64_t>(*word).load(std::memory_order_acquire));
}

void Reader::copy(uint64_t at, size_t size) {
  std::memcpy(buffer_.get(), base_ + kRingOffset + (at & (head_.ring_size - 1)), size);
  // The caller must look at the tail only after every byte is copied.
  std::atomic_thread_fence(std::memory_order_acquire);
}

Reader::Next Reader::next(Entry *entry) {
  for (int retries = 0; retries < kMostRetries;) {
    const uint64_t head = position(offsetof(FileHead, head));
    const uint64_t tail = position(offsetof(FileHead, tail));
    if (tail > head || head - tail > head_.ring_size || tail % 8 != 0 || head % 8 != 0) {
      // The head was read first and may be older than the tail; then a new look shows it.
      if (mapped_ == 0) return Next::kDamaged;
      if (++retries == kMostRetries) return Next::kDamaged;
      continue;
    }
    if (at_ < tail) at_ = tail;
    if (at_ == head) return Next::kNothing;
    if (at_ > head) return Next::kDamaged;

    // At least the eight bytes that every record and filler has.
    const uint64_t to_end = head_.ring_size - at_ % head_.ring_size;
    const uint64_t there = std::min(head - at_, to_end);
    copy(at_, 8);
    const char *bytes = reinterpret_cast<const char *>(buffer_.get());
    uint32_t size;
    std::memcpy(&size, bytes, sizeof size);
    size = little(size);
    const bool filler = bytes[offsetof(Record, kind)] == static_cast<char>(Kind::kFiller);
    const bool possible = size % 8 == 0 && size >= (filler ? 8 : sizeof(Record)) && size <= there &&
                          (filler ? size == to_end : size <= kMostRecord);
    if (possible && !filler) copy(at_, size);
    if (position(offsetof(FileHead, tail)) > at_) {
      ++retries;  // overwritten meanwhile
      continue;
    }
    if (!possible) return Next::kDamaged;
    at_ += size;
    if (filler) continue;

    Record record;
    std::memcpy(static_cast<void *>(&record), bytes, sizeof record);
    record = little(record);
    const size_t header_size =
        record.kind == static_cast<uint8_t>(Kind::kAccepted) ? kHeaderSize : 0;
    if (record.kind > kLastKind || record.loss > kLastLoss || record.number <= last_number_ ||
        sizeof record + header_size + record.kept > size) {
      return Next::kDamaged;
    }
    entry->record = record;
    entry->header = {bytes + sizeof record, header_size};
    entry->kept = {bytes + sizeof record + header_size, record.kept};
    account(record);
    return Next::kEntry;
  }
  return Next::kNothing;
}

void Reader::account(const Record &record) {
  // What skip_to_end() passed over is neither seen nor missed.
  if (first_number_ == 0) {
    first_number_ = record.number;
  } else if (!skipped_) {
    missed_ += record.number - last_number_ - 1;
  }
  skipped_ = false;
  last_number_ = record.number;
  ++seen_;
  if (record.kind == static_cast<uint8_t>(Kind::kClock)) {
    wall_minus_monotonic_ = record.about - record.time_ns;
  }
}

void Reader::skip_to_end() {
  at_ = position(offsetof(FileHead, head));
  skipped_ = true;
}

void Reader::rewind() {
  at_ = position(offsetof(FileHead, tail));
  skipped_ = false;
  first_number_ = last_number_ = seen_ = missed_ = 0;
  wall_minus_monotonic_ = head_.wall_ns - head_.monotonic_ns;
}

bool Reader::replaced() const {
  struct stat status {};
  return mapped_ != 0 && (::stat(path_.c_str(), &status) != 0 || status.st_dev != device_ ||
                          status.st_ino != inode_);
}

}  // namespace flight
