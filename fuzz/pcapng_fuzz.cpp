// Any file as a capture of the bus.

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "traffic/pcapng.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  traffic::PcapngReader reader({reinterpret_cast<const char *>(data), size});
  try {
    size_t bytes = 0;
    while (const auto packet = reader.next()) {
      bytes += traffic::kPacketHead + packet->kept.size();
      // Nothing is returned twice, and nothing that is not in the file.
      if (bytes > size || packet->kept.size() > packet->record.kept) std::abort();
    }
  } catch (const std::runtime_error &) {
  }
  return 0;
}
