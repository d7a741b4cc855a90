#include "msgbridge/losses.h"

#include <algorithm>
#include <iterator>

namespace msgbridge {
namespace {

Loss joined(const Loss &one, const Loss &other) {
  return {std::min(one.first, other.first), std::max(one.last, other.last), one.count + other.count,
          one.count >= other.count ? one.reason : other.reason};
}

}  // namespace

std::string_view reason_word(Reason reason) {
  switch (reason) {
    case Reason::kFull:
      return "full";
    case Reason::kOld:
      return "old";
    case Reason::kDisk:
      return "disk";
    case Reason::kRefused:
      return "refused";
    case Reason::kDamaged:
      return "damaged";
  }
  return "?";
}

void add_loss(Losses *losses, Loss loss, const std::set<uint64_t> &told,
              const std::function<bool(uint64_t, uint64_t)> &waits_between) {
  const auto joins = [&](const Loss &one, const Loss &next) {
    return one.reason == next.reason && one.last < next.first &&
           (one.last + 1 == next.first || !waits_between(one.last, next.first));
  };
  while (losses->contains(loss.first)) ++loss.first;
  const auto next = losses->upper_bound(loss.first);
  if (next != losses->begin()) {
    const auto before = std::prev(next);
    if (!told.contains(before->first) && joins(before->second, loss)) {
      loss = joined(before->second, loss);
      losses->erase(before);
    }
  }
  losses->emplace(loss.first, loss);
  if (losses->size() <= kMostLosses + told.size()) return;
  const auto pair = std::adjacent_find(
      losses->begin(), losses->end(), [&told](const auto &one, const auto &other) {
        return !told.contains(one.first) && !told.contains(other.first);
      });
  if (pair == losses->end()) return;
  const auto other = std::next(pair);
  pair->second = joined(pair->second, other->second);
  losses->erase(other);
}

}  // namespace msgbridge
