// Several ring files as one log in the order of time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ring_reader.h"
#include "time_text.h"

namespace mlog {

// A ring file and what is known of its times.
struct Source {
  std::string path;
  std::shared_ptr<const RingFile> file;
  Layout layout;
  // How many times the device has booted since the file was last written, as far as that is known:
  // 1 when it was before the running boot.
  unsigned boots_since = 0;
  // The file is not where this machine's log server writes, so its uptimes are those of another
  // machine or of an unknown boot.
  bool elsewhere = false;
};

// Opens a file. Throws std::runtime_error with a text for the user. For `written_only` see
// look_at().
Source open_source(const std::string &path, const Clocks &clocks, bool written_only);

// Goes through the entries of all files: older boots first, within a boot by uptime, within a
// millisecond by file, within a file by arrival; or all of it from the other end. Entries of one
// file always keep their order of arrival, even when their times go back. Holds one window of each
// file in memory.
class Merge {
 public:
  // All cursors go in the same direction. `sources` must outlive this.
  Merge(const std::vector<Source> &sources, std::vector<Cursor> cursors, bool forward);

  bool next();
  const Cursor &cursor() const { return cursors_[heap_.front()]; }
  size_t index() const { return heap_.front(); }  // of the source
  const Source &source() const { return (*sources_)[index()]; }
  // The entry's boot, counted back from the running one.
  unsigned boot() const { return boot_of(heap_.front()); }

  // Entries of this source were overwritten before they were read.
  bool missed(size_t index) const { return cursors_[index].missed(); }

 private:
  unsigned boot_of(size_t index) const {
    return cursors_[index].boot() + (*sources_)[index].boots_since;
  }
  bool before(size_t left, size_t right) const;
  void sift_down(size_t at);

  const std::vector<Source> *sources_;
  std::vector<Cursor> cursors_;
  std::vector<size_t> heap_;  // indices, the next entry's first
  bool forward_;
  bool started_ = false;
};

// All entries, the oldest or the newest first.
Merge merge_all(const std::vector<Source> &sources, bool forward);

// The entries from one place of each source on, the oldest first; none of a source without a place.
Merge merge_from(const std::vector<Source> &sources,
                 const std::vector<std::optional<Place>> &places);

}  // namespace mlog
