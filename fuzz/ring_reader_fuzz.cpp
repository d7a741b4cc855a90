// Ring files in any state, as the mlog tool reads them.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "ring_reader.h"

namespace {

void check_size(const std::vector<std::string> &texts, size_t most) {
  size_t size = 0;
  for (const std::string &text : texts) size += text.size() + 1;
  if (size > most) std::abort();
}

std::vector<std::string> texts_of(mlog::Cursor cursor) {
  std::vector<std::string> texts;
  while (cursor.next()) texts.emplace_back(cursor.entry().text);
  return texts;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string bytes(reinterpret_cast<const char *>(data), size);
  const mlog::Ring ring = mlog::read_ring(bytes);
  size_t text_size = 0;
  for (const mlog::Entry &entry : ring.entries) text_size += entry.text.size() + 1;
  // Nothing is invented: every entry ends at a line feed, at a hole, or at the file's end.
  if (text_size > 2 * size + 1) std::abort();
  if (ring.header != mlog::parse_header(bytes)) std::abort();

  // The entries are the same from either end, and from any place on.
  const auto file = std::make_shared<const mlog::RingFile>(std::string_view(bytes));
  const mlog::Layout layout = mlog::look_at(*file);
  const std::vector<std::string> forwards = texts_of(mlog::Cursor::forwards(file.get(), layout, 0));
  std::vector<std::string> backwards = texts_of(mlog::Cursor::backwards(file.get(), layout));
  std::reverse(backwards.begin(), backwards.end());
  if (forwards != backwards || forwards.size() != ring.entries.size()) std::abort();
  mlog::Cursor cursor = mlog::Cursor::backwards(file.get(), layout);
  for (size_t i = 0; i < forwards.size() / 2; ++i) cursor.next();
  if (forwards.size() >= 2) {
    const auto rest = texts_of(mlog::Cursor::from(file.get(), layout, cursor.place()));
    if (rest.size() != forwards.size() / 2) std::abort();
  }
  if (mlog::count_restarts(*file, layout) > forwards.size()) std::abort();

  // Follows the file from every state that a header can name.
  const long overturn = ring.header ? ring.header->overturn : 0;
  for (const long offset : {63L, 70L, static_cast<long>(size)}) {
    for (const long before : {overturn, overturn - 1, overturn - 2}) {
      mlog::Layout state;
      state.header = mlog::RingHeader{before, std::max(offset, 63L), 1023};
      mlog::Follower follower(file, &state);
      std::vector<std::string> texts;
      follower.poll(&texts);
      follower.poll(&texts);
      check_size(texts, 2 * size + 2);
    }
  }
  return 0;
}
