// Events that have been given up and not yet reported.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string_view>

namespace msgbridge {

enum class Reason : uint8_t { kFull = 1, kOld = 2, kDisk = 3, kRefused = 4, kDamaged = 5 };
std::string_view reason_word(Reason reason);

// `count` events with sequence numbers from `first` to `last` will not come. Others with numbers
// between these have come, or will.
struct Loss {
  uint64_t first;
  uint64_t last;
  uint64_t count;
  Reason reason;

  bool operator==(const Loss &) const = default;
};

// By their first numbers, which all differ.
using Losses = std::map<uint64_t, Loss>;

// Losses that have not been handed out are joined: a loss joins the one before it if both have the
// same reason and no event waits between them. The first number stays, because that notice may have
// been sent on an earlier connection. Beyond this many losses, neighbours are joined whatever waits
// between them and whatever their reasons are; the reason of the larger one stays.
inline constexpr size_t kMostLosses = 256;

// Adds a loss. Losses in `told` (by their first numbers) are never changed. `waits_between` says
// whether an event with a number between the two waits.
void add_loss(Losses *losses, Loss loss, const std::set<uint64_t> &told,
              const std::function<bool(uint64_t, uint64_t)> &waits_between);

}  // namespace msgbridge
