// Any text as a filter, on an event of each kind.

#include <cstdint>
#include <string_view>

#include "traffic/filter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const catalogue::Catalogue kCatalogue;
  static const traffic::Model kModel;
  static const traffic::Message kMessage;
  constexpr uint64_t kNow_ns = 1'700'000'000'000'000'000;
  try {
    const traffic::Filter filter({reinterpret_cast<const char *>(data), size}, kCatalogue, kNow_ns);
    for (uint8_t kind = 1; kind <= flight::kLastKind; ++kind) {
      traffic::Event event;
      event.record.kind = kind;
      event.wall_ns = kNow_ns;
      filter.matches(event, kModel);
      event.message = &kMessage;
      filter.matches(event, kModel);
    }
  } catch (const traffic::FilterError &) {
  }
  return 0;
}
