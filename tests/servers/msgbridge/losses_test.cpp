#include "msgbridge/losses.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "msgbridge/spool.h"

namespace {

using msgbridge::add_loss;
using msgbridge::kMostLosses;
using msgbridge::Loss;
using msgbridge::Losses;
using msgbridge::Reason;
using testing::ElementsAre;

class LossesOfTheSpool : public testing::Test {
 protected:
  void add(uint64_t first, uint64_t last, Reason reason = Reason::kFull) {
    add_loss(&losses_, {first, last, last - first + 1, reason}, told_,
             [this](uint64_t after, uint64_t before) {
               const auto next = waiting_.upper_bound(after);
               return next != waiting_.end() && *next < before;
             });
  }
  std::vector<std::string> all() const {
    std::vector<std::string> texts;
    for (const auto &[first, loss] : losses_) {
      EXPECT_EQ(first, loss.first);
      texts.push_back(std::string(reason_word(loss.reason)) + " " + std::to_string(first) + "-" +
                      std::to_string(loss.last) + " " + std::to_string(loss.count));
    }
    return texts;
  }

  Losses losses_;
  std::set<uint64_t> told_;
  std::set<uint64_t> waiting_;
};

TEST_F(LossesOfTheSpool, NeighboursBecomeOne) {
  waiting_ = {2, 3};
  add(1, 1);
  add(5, 5);
  waiting_ = {3};
  add(2, 2);
  EXPECT_THAT(all(), ElementsAre("full 1-2 2", "full 5-5 1"));
  waiting_ = {};
  add(3, 3);  // what lay between has gone up
  EXPECT_THAT(all(), ElementsAre("full 1-3 3", "full 5-5 1"));
  add(6, 6, Reason::kOld);
  EXPECT_THAT(all(), ElementsAre("full 1-3 3", "full 5-5 1", "old 6-6 1"));
}

TEST_F(LossesOfTheSpool, WhatHasBeenToldStaysAsItIs) {
  add(1, 1);
  told_ = {1};
  add(2, 3);
  EXPECT_THAT(all(), ElementsAre("full 1-1 1", "full 2-3 2"));
}

TEST_F(LossesOfTheSpool, TheirNumberIsBoundedAndTheirCountIsNot) {
  constexpr uint64_t kEvents = 4000;
  for (uint64_t i = 1; i <= kEvents; i += 2) {
    waiting_.insert(i + 1);
    add(i, i, i % 4 == 1 ? Reason::kFull : Reason::kRefused);
  }
  EXPECT_EQ(kMostLosses, losses_.size());
  uint64_t count = 0, end = 0;
  for (const auto &[first, loss] : losses_) {
    EXPECT_LT(end, first);
    end = loss.last;
    count += loss.count;
  }
  EXPECT_EQ(kEvents / 2, count);
}

}  // namespace
