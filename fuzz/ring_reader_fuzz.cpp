// Ring files in any state, as the mlog tool reads them.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "ring_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string bytes(reinterpret_cast<const char *>(data), size);
  const mlog::Ring ring = mlog::read_ring(bytes);
  size_t text_size = 0;
  for (const mlog::Entry &entry : ring.entries) text_size += entry.text.size() + 1;
  // Nothing is invented: every entry ends with a line feed in the file, or with the file.
  if (text_size > size + 1) std::abort();
  if (ring.header != mlog::parse_header(bytes)) std::abort();

  // Followed from every state that a header can name.
  const long overturn = ring.header ? ring.header->overturn : 0;
  for (const long offset : {63L, 70L, static_cast<long>(size)}) {
    for (const long before : {overturn, overturn - 1, overturn - 2}) {
      bool missed = false;
      text_size = 0;
      for (const auto &entry : mlog::entries_since({before, offset, 1023}, 0, bytes, &missed)) {
        text_size += entry.text.size() + 1;
      }
      if (text_size > 2 * size + 2) std::abort();
    }
  }
  return 0;
}
