// Reads ring log files entry by entry in either direction, also damaged files and files that are
// being written. Keeps one window of bytes in memory for each file.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/unique_fd.h"

namespace mlog {

struct RingHeader {
  long overturn = 0;
  long offset = 0;
  long upload_offset = 0;

  bool operator==(const RingHeader &) const = default;
};

// The header at the start of a file's bytes. None when it is missing or a number is out of range.
std::optional<RingHeader> parse_header(std::string_view bytes);

// One logged text, of one or more lines; only the first line has a head.
struct Entry {
  std::string_view text;  // as logged, without its last line feed
  // Of a text with a proper head:
  bool has_head = false;
  int64_t uptime_ms = 0;
  uint32_t level = 0;
  std::string_view module;  // parts of `text`
  std::string_view level_name;
  std::optional<uint32_t> pid;  // of its sender, if the server's configuration says so
  std::string_view message;     // all of `text` without a head

  Entry() = default;
  explicit Entry(std::string_view whole);
};

// An open file, or bytes in memory.
class RingFile {
 public:
  // Throws std::runtime_error with a text for the user.
  explicit RingFile(const std::string &path);
  // The caller keeps the bytes alive.
  explicit RingFile(std::string_view bytes) : bytes_(bytes) {}

  // Fills `out` from `position` on, as far as the file goes. Returns how many bytes it has filled.
  size_t read(size_t position, std::span<char> out) const;
  // Appends up to `size` bytes from `position` on to `out`. Returns how many.
  size_t read(size_t position, size_t size, std::string *out) const;
  // The header as it is now, all of it from one moment.
  std::optional<RingHeader> header() const;
  size_t size() const;
  // Somebody may be writing it.
  bool is_live() const { return static_cast<bool>(fd_); }
  // When it was last written; none for bytes in memory.
  std::optional<int64_t> modified_ms() const;
  // Whether `path` names this file. False when nothing has this name.
  bool is_at(const std::string &path) const;

 private:
  servers::UniqueFd fd_;
  std::string_view bytes_;
};

// Where the entries of a file are, at one moment.
struct Layout {
  struct Part {
    size_t begin = 0;
    size_t end = 0;
  };

  std::optional<RingHeader> header;
  size_t file_size = 0;
  // What is left of the turn before, and the running turn.
  Part older;
  Part newer;
  std::vector<std::string> problems;  // what is wrong with the file, for the user
};

// Looks at a file. With `written_only` it leaves out bytes that the header does not cover yet: a
// reader that goes on from the header's offset will find them.
Layout look_at(const RingFile &file, bool written_only = false);

// A place between two entries.
struct Place {
  bool in_newer = false;
  size_t position = 0;  // in the file
  unsigned boot = 0;    // of the entry after it; 0: the last boot in the file
};

// Goes through the entries of a file. The views in an entry are valid until the cursor moves.
class Cursor {
 public:
  // All entries, from one end. `boots` is how often the uptime goes back in the file; a cursor that
  // goes backwards counts that itself.
  static Cursor forwards(const RingFile *file, const Layout &layout, unsigned boots);
  static Cursor backwards(const RingFile *file, const Layout &layout);
  // From a place on, towards the end.
  static Cursor from(const RingFile *file, const Layout &layout, const Place &place);

  // Moves to the next entry in the cursor's direction; false when there is none.
  bool next();
  const Entry &entry() const { return entry_; }
  // The place before the entry.
  Place place() const;

  // The keys of the order: the boot, counted back from the last, and within it the uptime. When the
  // entry has no uptime, or one that goes back a little, the latest uptime that was passed counts
  // (going backwards: the earliest). So the keys never go against the cursor's direction.
  unsigned boot() const { return boot_; }
  int64_t key_ms() const { return key_ms_; }

  // Entries were overwritten before they were read.
  bool missed() const { return missed_; }
  // Bytes within the entries that were never written.
  size_t holes() const { return holes_; }

 private:
  Cursor(const RingFile *file, const Layout &layout, bool forward);

  bool next_forward();
  bool next_backward();
  bool fill_forward();
  bool fill_backward();
  bool enter_next_part();
  // Up to which position of the file the current part has been written over since the layout was
  // taken.
  size_t overwritten_to() const;

  const RingFile *file_;
  std::optional<RingHeader> seen_;  // the header that the layout is of
  Layout::Part parts_[2];
  bool forward_;
  int part_;
  size_t read_to_;      // in the file: where the next window begins (backwards: ends)
  std::string window_;  // the bytes before read_to_ (backwards: from it on)
  size_t begin_ = 0;    // begin and end of what has not been passed yet, in the window
  size_t end_ = 0;
  std::string without_holes_;  // the entry's text, if it had holes
  size_t holes_ = 0;
  size_t entry_at_ = 0;  // in the file
  Entry entry_;
  unsigned boot_ = 0;
  int64_t key_ms_;
  bool has_key_ = false;  // an entry with a head was passed
  bool missed_ = false;
};

// How often the uptime goes back in a file because the device has started anew.
unsigned count_restarts(const RingFile &file, const Layout &layout);

// Clients take the uptime and may then wait for the server, so uptimes may go back by this much
// without a restart.
constexpr int64_t kSmallStep_ms = 3000;

// A whole file.
struct Ring {
  std::optional<RingHeader> header;
  size_t file_size = 0;
  std::vector<Entry> entries;  // the oldest first
  std::vector<std::string> problems;
  std::shared_ptr<std::string> bytes;  // of the entries
};

// Never fails: `problems` names what cannot be understood, everything else is there.
Ring read_ring(std::string_view bytes);

// Reads the entries that are added to a file.
class Follower {
 public:
  // From the end of the layout on; without one, from the beginning of the file.
  Follower(std::shared_ptr<const RingFile> file, const Layout *layout);

  // Adds the entries that came since the last call.
  void poll(std::vector<std::string> *entries);
  // Entries were overwritten before they were read, since the last call.
  bool missed();

  const RingFile &file() const { return *file_; }

 private:
  void take(std::string_view data, std::vector<std::string> *entries);
  void remember(const RingHeader &header);

  std::shared_ptr<const RingFile> file_;
  std::optional<RingHeader> header_;
  std::string first_;  // the first bytes after the header: they change when a file is begun anew
  std::optional<int64_t> last_ms_;
  bool missed_ = false;
};

}  // namespace mlog
