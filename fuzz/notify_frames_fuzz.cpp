// What clients may send to the notify server: however a stream is cut into reads, the same messages
// come out.
//
// Input: one byte of read size, then the stream.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "notifyserver/frame_reader.h"

namespace {

std::vector<std::string> read_in_pieces(const uint8_t *data, size_t size, size_t piece) {
  notifyserver::FrameReader reader;
  std::vector<std::string> frames;
  for (size_t at = 0; at < size && !reader.malformed();) {
    const std::span<char> room = reader.room();
    const size_t count = std::min({piece, size - at, room.size()});
    if (count == 0) std::abort();
    std::memcpy(room.data(), data + at, count);
    reader.filled(count);
    at += count;
    while (const auto frame = reader.next()) {
      frames.emplace_back(frame->bytes.begin(), frame->bytes.end());
    }
  }
  return frames;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > 4096) return 0;
  const size_t piece = 1 + size_t{data[0]} * 3;
  if (read_in_pieces(data + 1, size - 1, piece) != read_in_pieces(data + 1, size - 1, SIZE_MAX)) {
    std::abort();
  }
  return 0;
}
