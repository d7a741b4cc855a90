// A flight recorder that writes what the input says, beside a reader that follows now and then. The
// reader gets every record in order and as it was written, except for those that were overwritten
// before it came, which it counts. At the end the input may change some bytes of the file: reading
// it then stays within the file.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "decisions.h"
#include "flight/reader.h"
#include "flight/recorder.h"

namespace {

using flight::Entry;
using flight::Kind;
using flight::Reader;
using fuzz::check;
using fuzz::Decisions;

constexpr const char *kFile = "/var/flight_ring";
constexpr uint32_t kBodyLimit = 3000;

// What a record must be when it is read.
struct Written {
  uint64_t number;
  Kind kind;
  uint32_t a, from, to;
  std::string kept;
};

class World {
 public:
  World() : recorder_(kFile, flight::kLeastRing, kBodyLimit), reader_(Reader::follow(kFile)) {
    recorder_.tick();
  }

  void step(Decisions *decisions) {
    switch (decisions->below(8)) {
      case 0:
      case 1:
        return accept(decisions, 1 + decisions->below(3));
      case 2:  // many, so that the ring turns
        return accept(decisions, 12);
      case 3: {
        const auto from = static_cast<uint32_t>(decisions->byte());
        const uint64_t number = recorder_.delivered(recorder_.count(), from, 2, 3, 4);
        return expect({number, Kind::kDelivered, 3, from, 2, ""});
      }
      case 4: {
        flight::Record facts;
        facts.from = decisions->byte();
        facts.a = decisions->byte();
        const std::string text(decisions->byte() * size_t{37}, 't');
        const uint64_t number = recorder_.note(Kind::kConnected, facts, text);
        return expect(
            {number, Kind::kConnected, facts.a, facts.from, 0, text.substr(0, flight::kMostKept)});
      }
      case 5:
        return recorder_.tick();
      case 6:
        return read(decisions->byte());
      default:
        return read(SIZE_MAX);
    }
  }

  // Reads everything that is left, like somebody who comes after the writer's death.
  void finish(Decisions *decisions) {
    read(SIZE_MAX);
    check(at_end_);
    std::vector<char> bytes(std::filesystem::file_size(kFile));
    check(std::ifstream(kFile, std::ios::binary)
              .read(bytes.data(), static_cast<std::streamsize>(bytes.size()))
              .good());
    {
      Reader late(bytes);
      Entry entry;
      uint64_t last = late.before_first();
      while (late.next(&entry) == Reader::Next::kEntry) {
        check(last == 0 || entry.record.number == last + 1);
        last = entry.record.number;
      }
      check(last == recorder_.count() && late.missed() == 0);
    }
    if (decisions->at_end()) return;
    while (!decisions->at_end()) {
      const size_t at = decisions->one_in(2)
                            ? decisions->below(64)
                            : (size_t{decisions->byte()} << 8 | decisions->byte()) + 4096;
      bytes[std::min(at, bytes.size() - 1)] = static_cast<char>(decisions->byte());
    }
    read_damaged(std::move(bytes));
  }

 private:
  void accept(Decisions *decisions, size_t count) {
    const uint32_t from = decisions->byte();
    const uint32_t length = decisions->byte() * 13u;
    for (size_t i = 0; i < count; ++i) {
      const std::string body(length, static_cast<char>('a' + i % 26));
      char header[flight::kHeaderSize];
      std::memset(header, static_cast<char>(from), sizeof header);
      const uint64_t number = recorder_.accepted(from, 9, header, length, body);
      expect({number, Kind::kAccepted, length, from, 9, body.substr(0, kBodyLimit)});
    }
  }

  void expect(Written written) {
    check(written.number == recorder_.count());
    expected_.push_back(std::move(written));
  }

  void read(size_t most) {
    Entry entry;
    while (most-- > 0) {
      const Reader::Next next = reader_.next(&entry);
      check(next != Reader::Next::kDamaged);
      at_end_ = next == Reader::Next::kNothing;
      if (at_end_) return check(expected_.empty() || last_ >= expected_.back().number);
      const uint64_t number = entry.record.number;
      check(number > last_ && entry.kind() != Kind::kFiller);
      jumped_ += number - last_ - 1;
      last_ = number;
      check(jumped_ == reader_.missed() + reader_.before_first());
      while (!expected_.empty() && expected_.front().number < number) expected_.pop_front();
      // The recorder writes clock records by itself.
      if (entry.kind() == Kind::kClock) continue;
      check(!expected_.empty() && expected_.front().number == number);
      const Written &right = expected_.front();
      check(entry.kind() == right.kind && entry.record.a == right.a);
      check(entry.record.from == right.from && entry.record.to == right.to);
      check(entry.text() == right.kept);
      check((entry.kind() == Kind::kAccepted) == !entry.header.empty());
      if (!entry.header.empty()) check(static_cast<uint8_t>(entry.header[0]) == right.from);
      expected_.pop_front();
    }
  }

  static void read_damaged(std::vector<char> bytes) {
    try {
      const size_t ring = bytes.size();
      Reader reader(std::move(bytes));
      Entry entry;
      size_t total = 0;
      std::string copied;  // every byte of an entry can be read
      while (reader.next(&entry) == Reader::Next::kEntry) {
        copied.assign(entry.header.data(), entry.header.size());
        copied.assign(entry.kept.data(), entry.kept.size());
        total += sizeof entry.record;
        check(total <= ring);
      }
    } catch (const std::runtime_error &) {
    }
  }

  flight::Recorder recorder_;
  Reader reader_;
  std::deque<Written> expected_;
  uint64_t last_ = 0, jumped_ = 0;
  bool at_end_ = true;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Decisions decisions(data, size);
  World world;
  for (size_t steps = decisions.below(64); steps > 0 && !decisions.at_end(); --steps) {
    world.step(&decisions);
  }
  world.finish(&decisions);
  return 0;
}
