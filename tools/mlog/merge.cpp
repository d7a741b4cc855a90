#include "merge.h"

#include <algorithm>
#include <utility>

namespace mlog {
namespace {

// Files carry the wall clock of their last change, which may have been corrected since.
constexpr int64_t kDoubt_ms = 60000;

}  // namespace

Source open_source(const std::string &path, const Clocks &clocks, bool written_only) {
  Source source{path, std::make_shared<RingFile>(path), {}, 0};
  source.layout = look_at(*source.file, written_only);
  const std::optional<int64_t> modified_ms = source.file->modified_ms();
  if (modified_ms && *modified_ms + kDoubt_ms < clocks.boot_ms) source.boots_since = 1;
  // A line with an uptime that this boot has not reached yet is of an earlier boot, too.
  Cursor last = Cursor::backwards(source.file.get(), source.layout);
  while (last.next()) {
    if (!last.entry().has_head) continue;
    if (last.entry().uptime_ms > clocks.uptime_ms + kSmallStep_ms) source.boots_since = 1;
    break;
  }
  return source;
}

Merge::Merge(const std::vector<Source> &sources, std::vector<Cursor> cursors, bool forward)
    : sources_(&sources), cursors_(std::move(cursors)), forward_(forward) {
  for (size_t i = 0; i < cursors_.size(); ++i) {
    if (cursors_[i].next()) heap_.push_back(i);
  }
  for (size_t at = heap_.size() / 2; at-- > 0;) sift_down(at);
}

bool Merge::before(size_t left, size_t right) const {
  const unsigned left_boot = boot_of(left);
  const unsigned right_boot = boot_of(right);
  if (left_boot != right_boot) return forward_ == (left_boot > right_boot);
  const int64_t left_ms = cursors_[left].key_ms();
  const int64_t right_ms = cursors_[right].key_ms();
  if (left_ms != right_ms) return forward_ == (left_ms < right_ms);
  return forward_ == (left < right);
}

void Merge::sift_down(size_t at) {
  for (;;) {
    size_t first = at;
    for (const size_t child : {2 * at + 1, 2 * at + 2}) {
      if (child < heap_.size() && before(heap_[child], heap_[first])) first = child;
    }
    if (first == at) return;
    std::swap(heap_[at], heap_[first]);
    at = first;
  }
}

bool Merge::next() {
  if (!std::exchange(started_, true)) return !heap_.empty();
  if (!cursors_[heap_.front()].next()) {
    heap_.front() = heap_.back();
    heap_.pop_back();
  }
  if (heap_.empty()) return false;
  sift_down(0);
  return true;
}

Merge merge_all(const std::vector<Source> &sources, bool forward) {
  std::vector<Cursor> cursors;
  for (const Source &source : sources) {
    cursors.push_back(forward ? Cursor::forwards(source.file.get(), source.layout,
                                                 count_restarts(*source.file, source.layout))
                              : Cursor::backwards(source.file.get(), source.layout));
  }
  return {sources, std::move(cursors), forward};
}

Merge merge_from(const std::vector<Source> &sources,
                 const std::vector<std::optional<Place>> &places) {
  std::vector<Cursor> cursors;
  for (size_t i = 0; i < sources.size(); ++i) {
    const Place end{true, sources[i].layout.newer.end, 0};
    cursors.push_back(
        Cursor::from(sources[i].file.get(), sources[i].layout, places[i].value_or(end)));
  }
  return {sources, std::move(cursors), true};
}

}  // namespace mlog
