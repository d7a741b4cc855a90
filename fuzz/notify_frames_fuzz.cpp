// Streams from clients to the notify server: however a stream is cut into reads, the same messages
// come out.
//
// Input: one byte of read size, then the stream.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "notifyserver/frame_reader.h"

namespace {

std::vector<std::string> read_in_pieces(const uint8_t *data, size_t size, size_t piece) {
  notifyserver::Budget budget(notifyserver::FrameReader::kFree + ORP_NOTIFYCLT_MAX_DATA);
  notifyserver::FrameReader reader(&budget);
  std::vector<std::string> frames;
  for (size_t at = 0; at < size && !reader.malformed();) {
    // Each piece is a block of its own, so that reads behind its end or after its life are found.
    std::vector<char> bytes(data + at, data + at + std::min(piece, size - at));
    reader.feed(bytes);
    at += bytes.size();
    while (const auto frame = reader.next()) {
      frames.emplace_back(frame->bytes.begin(), frame->bytes.end());
    }
    reader.release();
  }
  reader.reset();
  if (budget.used() != 0 || reader.refused() != 0) std::abort();
  return frames;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > 16384) return 0;
  const size_t piece = 1 + size_t{data[0]} * 3;
  if (read_in_pieces(data + 1, size - 1, piece) != read_in_pieces(data + 1, size - 1, SIZE_MAX)) {
    std::abort();
  }
  return 0;
}
