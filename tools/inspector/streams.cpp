#include "inspector/streams.h"

#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <optional>
#include <utility>

#include "traffic/pcapng.h"

namespace inspector {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kBetweenBatches(100);
constexpr std::chrono::milliseconds kStatusEvery(1000);
constexpr size_t kMostInBatch = 400;
// Records looked at in one go: other threads wait for the lock so long.
constexpr uint64_t kMostLookedAt = 2000;

// Goes through the records of a selection, a few at a time.
class Cursor {
 public:
  // From sequence `next` up to, but without, `end`.
  Cursor(Bus *bus, Selection selection, uint64_t next, uint64_t end = ~uint64_t{0})
      : bus_(bus), selection_(std::move(selection)), next_(next), end_(end) {}

  // Searches until `use` has been called, and unlocks between pieces of the search. False when all
  // records have been looked at.
  template <typename Use>
  bool find(Use use) {
    for (;;) {
      {
        const std::lock_guard lock(bus_->mutex);
        if (bus_->ends) return false;
        size_t used = 0;
        const bool more = step([&](const Kept &kept) {
          use(kept);
          ++used;
        });
        if (!more || used > 0) return more;
      }
      let_others_in();
    }
  }

  // Looks at one piece. Call with the lock held. False when all records have been looked at.
  template <typename Use>
  bool step(Use use) {
    const Recording &recording = bus_->recording;
    if (next_ < recording.first_sequence()) {
      skipped_ += recording.first_sequence() - next_;
      next_ = recording.first_sequence();
    }
    size_t used = 0;
    for (uint64_t looked = 0; looked < kMostLookedAt && used < kMostInBatch; ++looked, ++next_) {
      if (next_ >= std::min(end_, recording.end_sequence())) return false;
      const Kept &kept = recording.at(next_);
      if (!recording.matches(kept, selection_)) continue;
      use(kept);
      ++used;
    }
    return true;
  }

  Bus &bus() const { return *bus_; }
  bool behind() const { return next_ < bus_->recording.end_sequence(); }
  uint64_t last() const { return next_ - 1; }
  uint64_t take_skipped() { return std::exchange(skipped_, 0); }

 private:
  Bus *bus_;
  Selection selection_;
  uint64_t next_;
  uint64_t end_;
  uint64_t skipped_ = 0;  // forgotten by the recording before they were looked at
};

class LiveRecords final : public Stream {
 public:
  LiveRecords(Cursor cursor, std::function<std::string()> status,
              std::shared_ptr<std::atomic<int>> streams)
      : cursor_(std::move(cursor)), status_(std::move(status)), streams_(std::move(streams)) {
    ++*streams_;
  }
  ~LiveRecords() override { --*streams_; }

  std::string next() override {
    if (Clock::now() >= status_due_) return status_event();
    if (!wait()) return {};
    std::string records;
    {
      const std::lock_guard lock(cursor_.bus().mutex);
      cursor_.step([&records](const Kept &kept) {
        records += records.empty() ? "" : ",";
        records += kept.json;
      });
    }
    const uint64_t skipped = cursor_.take_skipped();
    // An empty comment: writing it shows whether the reader is still there.
    if (records.empty() && skipped == 0) return ":\n\n";
    return fmt::format("id: {}\nevent: records\ndata: {{\"records\":[{}],\"skipped\":{}}}\n\n",
                       cursor_.last(), records, skipped);
  }

 private:
  // Waits until there may be something to say; false when the bus ends.
  bool wait() {
    Bus &bus = cursor_.bus();
    std::unique_lock lock(bus.mutex);
    bus.news.wait_for(lock, kBetweenBatches, [&bus] { return bus.ends; });
    bus.news.wait_until(lock, status_due_, [&] {
      return bus.ends || cursor_.behind() || bus.state != state_ || bus.servers != servers_;
    });
    if (bus.state != state_ || bus.servers != servers_) status_due_ = Clock::now();
    return !bus.ends;
  }

  std::string status_event() {
    status_due_ = Clock::now() + kStatusEvery;
    {
      const std::lock_guard lock(cursor_.bus().mutex);
      if (cursor_.bus().ends) return {};
      state_ = cursor_.bus().state;
      servers_ = cursor_.bus().servers;
    }
    return "event: status\ndata: " + status_() + "\n\n";
  }

  Cursor cursor_;
  std::function<std::string()> status_;
  std::shared_ptr<std::atomic<int>> streams_;
  Clock::time_point status_due_{};
  SourceState state_ = SourceState::kWaiting;
  uint32_t servers_ = 0;
};

class Capture final : public Stream {
 public:
  Capture(Cursor cursor, bool masked)
      : cursor_(std::move(cursor)),
        masking_(masked ? traffic::Masking::kDone : traffic::Masking::kNone),
        writer_([this](std::string_view bytes) { out_ += bytes; }, "msginspect " MSGAPI_VERSION,
                "msgsvr") {}

  std::string next() override {
    cursor_.find([this](const Kept &kept) { add(kept); });
    // A capture without packets is a valid file, too.
    if (out_.empty() && !server_) begin(0, traffic::Model(1));
    return std::exchange(out_, {});
  }

 private:
  void begin(uint32_t server, const traffic::Model &model) {
    server_ = server;
    writer_.begin_section(fmt::format("message server {}", server), model);
  }
  void add(const Kept &kept) {
    const Recording &recording = cursor_.bus().recording;
    const traffic::Model &model = recording.model_of(kept);
    if (server_ != kept.server) begin(kept.server, model);
    writer_.add(Recording::event_of(kept), model, masking_, recording.line_of(kept));
  }

  Cursor cursor_;
  traffic::Masking masking_;
  std::optional<uint32_t> server_;  // of the section that has begun
  std::string out_;
  traffic::PcapngWriter writer_;
};

class JsonList final : public Stream {
 public:
  explicit JsonList(Cursor cursor) : cursor_(std::move(cursor)) {}

  std::string next() override {
    if (ended_) return {};
    std::string out = std::exchange(begun_, true) ? "" : "[\n";
    const bool more = cursor_.find([&](const Kept &kept) {
      if (std::exchange(has_one_, true)) out += ",\n";
      out += kept.json;
    });
    if (!more) {
      ended_ = true;
      out += "\n]\n";
    }
    return out;
  }

 private:
  Cursor cursor_;
  bool begun_ = false;
  bool has_one_ = false;
  bool ended_ = false;
};

Cursor all_until_now(Bus *bus, Selection selection) {
  const std::lock_guard lock(bus->mutex);
  return Cursor(bus, std::move(selection), 1, bus->recording.end_sequence());
}

}  // namespace

std::unique_ptr<Stream> live_records(Bus *bus, Selection selection, uint64_t after,
                                     std::function<std::string()> status,
                                     std::shared_ptr<std::atomic<int>> streams) {
  return std::make_unique<LiveRecords>(Cursor(bus, std::move(selection), after + 1),
                                       std::move(status), std::move(streams));
}

std::unique_ptr<Stream> capture(Bus *bus, Selection selection, bool masked) {
  return std::make_unique<Capture>(all_until_now(bus, std::move(selection)), masked);
}

std::unique_ptr<Stream> json_list(Bus *bus, Selection selection) {
  return std::make_unique<JsonList>(all_until_now(bus, std::move(selection)));
}

}  // namespace inspector
