#include "uv/timer.h"

#include <utility>

#include "base/memory.h"
#include "os/clock.h"
#include "uv/loop_fixture.h"

namespace msgapi {
namespace {

using testing::ElementsAre;
using testing::FieldsAre;

void fired(ORP_WORD data) {
  LoopTest::recorded(std::to_string(data));
}

class TimerTest : public LoopTest {
 protected:
  // A timer of the loop that expires `expiry`.
  OrpUvTimer *timer(ORP_TIME_ST expiry, uint32_t interval_ms, uint32_t count, ORP_WORD data) {
    auto *timer = new_record<OrpUvTimer>();
    EXPECT_EQ(ORP_OK, OrpUvTimerInit(&loop_, timer));
    EXPECT_EQ(ORP_OK, OrpUvTimerStart(timer, interval_ms, count, fired, data));
    timer->expirySec = expiry.seconds;
    timer->expiryUsec = expiry.microseconds;
    return timer;
  }

  // Runs one timer pass at the given time. Returns the wait that it allows.
  ORP_TIME_ST pass_at(int32_t seconds, int32_t microseconds) {
    loop_.now = {seconds, microseconds};
    ORP_TIME_ST timeout;
    EXPECT_EQ(Status::kOk, uv::run_timers(&loop_, &timeout));
    return timeout;
  }
};

TEST_F(TimerTest, CountsFromTheStartOfTheIterationAndCatchesNothingUp) {
  OrpUvTimer *three = timer({1000, 500000}, 1500, 3, 1);

  EXPECT_THAT(pass_at(1000, 499999), FieldsAre(0, 1));
  EXPECT_THAT(pass_at(1010, 250000), FieldsAre(1, 500000)) << "five periods late";
  EXPECT_EQ(1u, calls.size());
  EXPECT_THAT(pass_at(1010, 750000), FieldsAre(1, 0));
  EXPECT_EQ(1u, calls.size());
  pass_at(1011, 750000);
  pass_at(1014, 0);
  EXPECT_EQ(3u, calls.size());
  EXPECT_EQ(nullptr, three->callback);
}

// An inner run leaves the time-out of its own last wait, which may have taken long.
TEST_F(TimerTest, IsLookedAtAnewAfterAnInnerRunOfAnother) {
  static int idle_calls;
  auto *outer = new_record<OrpUvTimer>();
  OrpUvTimerInit(&loop_, outer);
  const auto run_inside = [](ORP_WORD word) {
    auto *loop = reinterpret_cast<OrpUvLoop *>(word);
    OrpUvLoopStop(loop);
    EXPECT_EQ(ORP_OK, ORP_UV_LoopRun(loop, 5000));
    idle_calls = 0;
  };
  OrpUvTimerStart(outer, 1, 1, run_inside, reinterpret_cast<ORP_WORD>(&loop_));
  ORP_UV_IdleStart(&loop_, [](OrpUvIdle *self) {
    if (++idle_calls == 2) OrpUvLoopStop(self->head.loop);
  });
  idle_calls = -1000;

  EXPECT_EQ(ORP_OK, run(5000));
}

TEST_F(TimerTest, LimitsTheWaitToTheNearestExpiryOrTheIdleTime) {
  EXPECT_THAT(pass_at(1000, 0), FieldsAre(0x7fffffff, 0));
  loop_.idleTime = 2500;
  EXPECT_THAT(pass_at(1000, 0), FieldsAre(2, 500000));

  timer({1002, 100000}, 1, 1, 1);
  EXPECT_THAT(pass_at(1000, 200000), FieldsAre(1, 900000));
  timer({1002, 0}, 0, 1, 2);
  timer({0, 0}, 1, 1, 3);
  EXPECT_THAT(pass_at(1000, 200000), FieldsAre(1, 900000)) << "sleeping timers do not count";
  EXPECT_TRUE(calls.empty());
}

TEST_F(TimerTest, ChangeOfPeriodKeepsOnlyTheFirstExpiryTenMillisecondsAway) {
  OrpUvTimer *changed = timer({1000, 0}, 500, 0, 1);
  const auto first_interval_ms = [&](uint32_t interval_ms) {
    ORP_TIME_ST before, span;
    os::read_monotonic(&before);
    OrpUtilTimerChgPeriod(changed, interval_ms);
    const ORP_TIME_ST expiry = {changed->expirySec, changed->expiryUsec};
    OrpUtilTimerGetIntv(&expiry, &before, &span);
    return int64_t{span.seconds} * 1000 + span.microseconds / 1000;
  };

  EXPECT_GE(first_interval_ms(3), 10);
  EXPECT_EQ(3u, changed->interval);
  EXPECT_LT(first_interval_ms(4000000000u), 4000000000);
  EXPECT_EQ(4000000000u, changed->interval);

  OrpUtilTimerChgPeriod(changed, 0);
  EXPECT_EQ(0x7fffffff, changed->expirySec);
  pass_at(0x7fffffff, 1);
  EXPECT_TRUE(calls.empty()) << "interval 0 sleeps";
}

TEST_F(TimerTest, AddedTimersBelongToTheDefaultLoop) {
  OrpUvTimer *named = ORP_TIMER_AddWithName(5, 1, fired, "a name of twenty characters", 7);
  OrpUvTimer *ended = OrpTimerAddWithName(5, 1, fired, nullptr, 8);
  OrpTimerSafeDel(&ended);
  ORP_UTIL_TimerAdd(0, 1, fired, 9);
  OrpUtilTimerAdd(20, 1, fired, 10);
  EXPECT_EQ(nullptr, OrpUtilTimerAdd(5, 1, nullptr, 0));
  fail_allocation(1);
  EXPECT_EQ(nullptr, OrpUtilTimerAdd(5, 1, fired, 0));

  EXPECT_STREQ("a name of twent", named->name);
  EXPECT_EQ(nullptr, ended);
  on_recorded = [] {
    if (calls.size() == 2) OrpUvLoopStop(OrpUvLoopGetDefault());
  };
  EXPECT_EQ(ORP_OK, ORP_UV_LoopRun(nullptr, 0));
  EXPECT_THAT(calls, ElementsAre("7", "10"));
}

TEST_F(TimerTest, StartedBehindTheTimerPassItDoesNotWaitForTheNextEvent) {
  ORP_UV_IdleStart(&loop_, [](OrpUvIdle *self) {
    if (std::exchange(self->head.data, 1) != 0) return;
    auto *late = new_record<OrpUvTimer>();
    OrpUvTimerInit(self->head.loop, late);
    OrpUvTimerStart(late, 1, 1, fired, 1);
  });
  on_recorded = [&] { OrpUvLoopStop(&loop_); };

  EXPECT_EQ(ORP_OK, run(0));

  EXPECT_THAT(calls, ElementsAre("1"));
}

TEST(TimerGetIntv, IsNeverNegative) {
  const struct {
    ORP_TIME_ST later, earlier, expected;
  } cases[] = {
      {{5, 300}, {3, 100}, {2, 200}}, {{5, 100}, {3, 300}, {1, 999800}},
      {{3, 300}, {5, 100}, {0, 200}},  // earlier second, later microsecond
      {{3, 100}, {3, 300}, {0, 0}},   {{3, 100}, {5, 300}, {0, 0}},
  };
  for (const auto &c : cases) {
    ORP_TIME_ST result = {-1, -1};
    OrpUtilTimerGetIntv(&c.later, &c.earlier, &result);
    EXPECT_THAT(result, FieldsAre(c.expected.seconds, c.expected.microseconds));
  }
}

}  // namespace
}  // namespace msgapi
