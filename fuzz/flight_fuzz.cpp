// Flight files in any state. The ring is large, so the input is written into one of zeros: its
// first 64 bytes are the head, and the rest goes where the tail points.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "flight/reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static std::vector<char> file(flight::kRingOffset + flight::kLeastRing);
  std::fill(file.begin(), file.end(), 0);
  flight::FileHead head;
  if (size < sizeof head) return 0;
  std::memcpy(&head, data, sizeof head);
  std::memcpy(file.data(), data, sizeof head);
  data += sizeof head;
  size = std::min<size_t>(size - sizeof head, flight::kLeastRing);
  for (size_t i = 0; i < size; ++i) {
    file[flight::kRingOffset + (head.tail + i) % flight::kLeastRing] = static_cast<char>(data[i]);
  }

  try {
    flight::Reader reader(file);
    flight::Entry entry;
    uint64_t bytes = 0;
    int sum = 0;
    while (reader.next(&entry) == flight::Reader::Next::kEntry) {
      // Every byte of an entry can be read, and nothing is returned twice.
      for (const char c : entry.header) sum ^= c;
      for (const char c : entry.kept) sum ^= c;
      bytes += entry.header.size() + entry.kept.size();
      if (bytes > flight::kLeastRing || sum > 255) std::abort();
      if (entry.kind() == flight::Kind::kFiller) std::abort();
    }
  } catch (const std::runtime_error &) {
  }
  return 0;
}
