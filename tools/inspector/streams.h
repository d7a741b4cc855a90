// Answers of unknown length: the records as they come, and captures.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "inspector/bus.h"
#include "inspector/web.h"

namespace inspector {

// Server-sent events (WHATWG HTML, 9.2): "status" each second and when the source's state has
// changed, and "records" with the records of the selection after the sequence `after`. Ends with
// the bus. `streams` counts the streams that there are.
std::unique_ptr<Stream> live_records(Bus *bus, Selection selection, uint64_t after,
                                     std::function<std::string()> status,
                                     std::shared_ptr<std::atomic<int>> streams);

// The kept records of the selection, as a pcapng capture or as a list in JSON.
std::unique_ptr<Stream> capture(Bus *bus, Selection selection, bool masked);
std::unique_ptr<Stream> json_list(Bus *bus, Selection selection);

}  // namespace inspector
