// What has been given up and not been told yet.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string_view>

namespace msgbridge {

enum class Reason : uint8_t { kFull = 1, kOld = 2, kDisk = 3, kRefused = 4, kDamaged = 5 };
std::string_view reason_word(Reason reason);

// `count` events with sequence numbers from `first` to `last` will not come; others in between did,
// or do.
struct Loss {
  uint64_t first;
  uint64_t last;
  uint64_t count;
  Reason reason;

  bool operator==(const Loss &) const = default;
};

// By their first numbers, no two of which are the same.
using Losses = std::map<uint64_t, Loss>;

// Notices that nobody has been told of yet are as few as their order among the events that still
// wait allows: what follows one for the same reason joins it, which keeps its first number, as it
// may have been told on an earlier connection. Beyond this number neighbours become one whatever
// their reasons (that of the more events stays) and whatever waits between them.
inline constexpr size_t kMostLosses = 256;

// Adds what has been given up. Those in `told`, by their first numbers, stay as they are.
// `waits_between` tells whether an event with a number between the two waits.
void add_loss(Losses *losses, Loss loss, const std::set<uint64_t> &told,
              const std::function<bool(uint64_t, uint64_t)> &waits_between);

}  // namespace msgbridge
