#include "traffic/latency.h"

namespace traffic {
namespace {

// The recorder's clock is monotonic, but a damaged file may say anything.
uint64_t span(uint64_t from_ns, uint64_t to_ns) {
  return to_ns < from_ns ? 0 : to_ns - from_ns;
}

}  // namespace

Spans spans_of(const Event &event) {
  Spans spans;
  if (event.message == nullptr) return spans;
  const Message &message = *event.message;
  const Message *request = event.request;
  if (event.kind() == flight::Kind::kDelivered) {
    spans.queue_ns = span(message.accepted_ns, event.record.time_ns);
    if (request != nullptr) spans.total_ns = span(request->accepted_ns, event.record.time_ns);
  } else if (event.kind() == flight::Kind::kAccepted && request != nullptr) {
    const bool delivered = request->delivered_ns != 0;
    if (delivered || request->to == 0) {
      spans.handler_ns =
          span(delivered ? request->delivered_ns : request->accepted_ns, event.record.time_ns);
    }
  }
  return spans;
}

}  // namespace traffic
