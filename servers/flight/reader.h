// Reads the flight recorder's file while the server writes it, or after the server has died.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "flight/record.h"

namespace flight {

// A record with what belongs to it. The views are valid until the next call of next().
struct Entry {
  Record record;
  std::span<const char> header;  // of a message, kHeaderSize bytes, else empty
  std::span<const char> kept;    // the beginning of the body, or the text

  Kind kind() const { return static_cast<Kind>(record.kind); }
  Loss loss() const { return static_cast<Loss>(record.loss); }
  std::string_view text() const { return {kept.data(), kept.size()}; }
};

class Reader {
 public:
  enum class Next {
    kEntry,    // *entry is filled
    kNothing,  // everything that is written has been read
    kDamaged,  // the ring breaks the format's rules; reading cannot go on
  };

  // Maps the file of a running server. Throws std::runtime_error with a text for the user. Only for
  // a file that nobody but the server can cut short: reading beyond its end raises SIGBUS
  // (mmap(2)).
  static Reader follow(const std::string &path);
  // Takes a copy of any file, so that cutting or overwriting the file does no harm. From a file
  // that is being written it keeps the records that were whole both before and after the copying.
  static Reader load(const std::string &path);
  // The bytes of such a file.
  explicit Reader(std::vector<char> bytes);

  ~Reader();
  Reader(Reader &&other) noexcept;
  Reader &operator=(Reader &&other) noexcept;

  // The facts of the file, as they were when it was opened, in this machine's byte order.
  const FileHead &head() const { return head_; }

  // The next record, the oldest that is still there first. Fillers are passed over.
  Next next(Entry *entry);
  // Goes on after everything that is written now.
  void skip_to_end();
  // Begins again, with the oldest record that is there now.
  void rewind();

  // Records that were overwritten before the first one that was read.
  uint64_t before_first() const { return first_number_ == 0 ? 0 : first_number_ - 1; }
  uint64_t seen() const { return seen_; }
  // Records after the first one that was read that were overwritten before they could be read.
  uint64_t missed() const { return missed_; }

  // What is written from now on will be read.
  bool follows() const { return mapped_ != 0; }
  // Whether a new server has put another file in this one's place.
  bool replaced() const;

  // The wall clock, ns since 1970, at a time of the server's monotonic clock, according to the
  // clock record that was read last.
  uint64_t wall_ns(uint64_t time_ns) const { return time_ns + wall_minus_monotonic_; }

 private:
  Reader() = default;
  void start();
  uint64_t position(size_t offset) const;
  void copy(uint64_t at, size_t size);
  void account(const Record &record);

  std::vector<char> bytes_;     // of a loaded file
  const char *base_ = nullptr;  // the mapping, or bytes_
  size_t mapped_ = 0;           // size of the mapping, 0 without one
  std::string path_;
  uint64_t device_ = 0;
  uint64_t inode_ = 0;

  FileHead head_{};
  uint64_t at_ = 0;
  bool skipped_ = false;
  std::unique_ptr<uint64_t[]> buffer_;
  uint64_t first_number_ = 0;
  uint64_t last_number_ = 0;
  uint64_t seen_ = 0;
  uint64_t missed_ = 0;
  uint64_t wall_minus_monotonic_ = 0;
};

}  // namespace flight
