// Single behaviours of the loop; loop_model_test.cpp covers how they combine.

#include "uv/loop.h"

#include <fcntl.h>
#include <sys/resource.h>

#include "base/memory.h"
#include "msgapi/process.h"
#include "uv/default_loop.h"
#include "uv/loop_fixture.h"

namespace msgapi {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StrEq;

void record_timer(ORP_WORD name) {
  LoopTest::recorded("timer" + std::to_string(name));
}

void record_idle(OrpUvIdle *idle) {
  LoopTest::recorded("idle" + std::to_string(idle->head.data));
}

TEST_F(LoopTest, IteratesTimersThenIdleProceduresThenDescriptorsByEvent) {
  const int both = readable_socket();
  ASSERT_EQ(1, ::send(peer_, "!", 1, 0));
  watch(both, ORP_UV_READABLE | ORP_UV_WRITABLE, 1);
  const int urgent = tcp_socket_with_urgent_data();
  watch(urgent, ORP_UV_EXCEPTION, 2);
  watch(readable_socket(), ORP_UV_READABLE, 3);
  ORP_UV_IdleStart(&loop_, record_idle)->head.data = 1;
  auto *timer = new_record<OrpUvTimer>();
  OrpUvTimerInit(&loop_, timer);
  OrpUvTimerStart(timer, 1, 1, record_timer, 1);
  timer->expirySec = 1;
  ORP_UV_IdleStart(&loop_, record_idle)->head.data = 2;
  on_call = [&](OrpUvIo *) { OrpUvLoopStop(&loop_); };

  EXPECT_EQ(ORP_OK, run(0));

  EXPECT_THAT(calls, ElementsAre("timer1", "idle1", "idle2", "1:1", "3:1", "2:4", "1:2"));
  EXPECT_EQ(1u, OrpUvLoopGetCurIdx(&loop_));
}

TEST_F(LoopTest, NullMeansTheDefaultLoopExceptWhereItCouldHarm) {
  OrpUvLoop *loop = OrpUvLoopGetDefault();
  ASSERT_NE(nullptr, loop);

  OrpUvLoopSetIdleTime(nullptr, 7);
  EXPECT_EQ(7u, OrpUvLoopGetIdleTime(loop));
  EXPECT_EQ(0, OrpUvLoopGetMaxFd(nullptr));
  OrpUvLoopStop(nullptr);
  OrpUvLoopInit(nullptr);
  EXPECT_EQ(ORP_UV_LOOP_INITIALISED, loop->flags);
  EXPECT_EQ(ORP_ERR_TIMEOUT, OrpUvLoopRun(nullptr, 1));

  uv::set_default_loop_override(&loop_);
  EXPECT_EQ(&loop_, OrpUvLoopGetDefault());
  uv::set_default_loop_override(nullptr);
  EXPECT_EQ(loop, OrpUvLoopGetDefault());
}

TEST_F(LoopTest, StopEndsTheRunBeforeTheWaitAndIsForgotten) {
  OrpUvIdle *idle = ORP_UV_IdleStart(&loop_, [](OrpUvIdle *self) {
    LoopTest::recorded("idle");
    OrpUvLoopStop(self->head.loop);
  });

  EXPECT_EQ(ORP_OK, run(0));
  EXPECT_EQ(0u, loop_.iteration);
  EXPECT_EQ(0u, loop_.flags & ORP_UV_LOOP_STOP);
  EXPECT_EQ(ORP_OK, run(0));
  EXPECT_THAT(calls, ElementsAre("idle", "idle"));

  idle->proc = nullptr;
  OrpUvLoopStop(&loop_);
  EXPECT_EQ(ORP_OK, run(0)) << "stopped before it began";
}

TEST_F(LoopTest, StoppedIdleProcedureIsCalledUntilItIsFreed) {
  ORP_UV_IdleStart(&loop_, [](OrpUvIdle *self) {
    LoopTest::recorded("idle");
    OrpUvIdleStop(self);
  });
  OrpUvIo *io = watch(readable_socket(), ORP_UV_READABLE, 1);
  on_call = [&](OrpUvIo *) { OrpUvIoStop(io, ORP_UV_READABLE); };

  run();

  // The first iteration's dispatch frees it; without that it would be called in the second one.
  EXPECT_THAT(calls, ElementsAre("idle", "1:1"));
  EXPECT_EQ(nullptr, ORP_UV_IdleStart(&loop_, nullptr));
  EXPECT_EQ(ORP_ERR_ARGUMENT, OrpUvIdleStop(nullptr));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_UV_IdleInit(&loop_, nullptr));
  fail_allocation(1);
  EXPECT_EQ(nullptr, OrpUvIdleStart(&loop_, record_idle));
}

TEST_F(LoopTest, IdleProceduresMayLowerTheWait) {
  ORP_UV_IdleStart(&loop_, [](OrpUvIdle *self) {
    const ORP_TIME_ST longer = {9, 0}, shorter = {0, 1500000}, same_second = {0, 1};
    OrpUvLoop *loop = self->head.loop;
    OrpUvLoopUpdateSelectTimeout(loop, &longer);
    EXPECT_EQ(5, loop->selectTimeout.seconds);
    OrpUvLoopUpdateSelectTimeout(loop, &shorter);
    EXPECT_EQ(1500000, loop->selectTimeout.microseconds);
    OrpUvLoopUpdateSelectTimeout(loop, &same_second);
    OrpUvLoopUpdateSelectTimeout(loop, nullptr);
    EXPECT_EQ(1, loop->selectTimeout.microseconds);
    if (loop->iteration == 2) OrpUvLoopStop(loop);
  });

  EXPECT_EQ(ORP_OK, run(5000));

  EXPECT_EQ(2u, loop_.iteration) << "neither idle, with 0 seconds of 5 waited, nor blocked";
}

TEST_F(LoopTest, IdleTimeEndsTheRunUnlessATimerIsDueASecondBefore) {
  EXPECT_EQ(ORP_ERR_TIMEOUT, run(1));
  EXPECT_EQ(1u, loop_.iteration);

  auto *timer = new_record<OrpUvTimer>();
  OrpUvTimerInit(&loop_, timer);
  OrpUvTimerStart(timer, 1, 3, record_timer, 1);
  on_recorded = [&] {
    if (calls.size() == 3) OrpUvLoopStop(&loop_);
  };
  EXPECT_EQ(ORP_OK, run(1001));
  EXPECT_EQ(3u, calls.size());
}

TEST_F(LoopTest, DescriptorClosedByAnEarlierCallbackIsNotReady) {
  watch(readable_socket(), ORP_UV_READABLE, 1);
  OrpUvIo *closed = watch(readable_socket(), ORP_UV_READABLE, 2);
  on_call = [&](OrpUvIo *) {
    ::close(closed->fd);
    OrpUvLoopStop(&loop_);
  };

  run(0);

  EXPECT_THAT(calls, ElementsAre("1:1"));
}

TEST_F(LoopTest, ForcedEventsComeInsteadOfDescriptors) {
  OrpUvIo *ready = watch(readable_socket(), ORP_UV_READABLE, 1);
  OrpUvIo *quiet = watch(socket(), 0, 2);
  EXPECT_EQ(ORP_OK, OrpUvIoForcedLoop(quiet, 1));
  EXPECT_EQ(ORP_OK, OrpUvIoForcedLoop(quiet, 1));
  EXPECT_EQ(ORP_OK, OrpUvIoForcedLoop(ready, 6));
  std::vector<uint64_t> iterations;
  on_call = [&](OrpUvIo *self) {
    iterations.push_back(loop_.iteration);
    if (calls.size() == 1) OrpUvIoForcedLoop(self, 4);
    if (calls.back() == "1:1") OrpUvLoopStop(&loop_);
  };

  EXPECT_EQ(ORP_OK, run(0));

  EXPECT_THAT(calls, ElementsAre("2:1", "2:1", "1:6", "2:4", "1:1"));
  EXPECT_THAT(iterations, ElementsAre(0u, 0u, 0u, 1u, 2u));
}

TEST_F(LoopTest, ForcedEventIsDeliveredThoughTheIdleTimeIsShort) {
  OrpUvIoForcedLoop(watch(socket(), 0, 1), 1);

  EXPECT_EQ(ORP_ERR_TIMEOUT, run(1));

  EXPECT_THAT(calls, ElementsAre("1:1"));
}

TEST_F(LoopTest, ForcedEventDiesWithItsWatcher) {
  OrpUvIo *deleted = watch(socket(), 0, 1);
  OrpUvIo *other = watch(socket(), 0, 2);
  OrpUvIoForcedLoop(other, 1);
  OrpUvIoForcedLoop(deleted, 1);
  on_call = [&](OrpUvIo *) { OrpUvIoDelete(deleted); };

  run();

  EXPECT_THAT(calls, ElementsAre("2:1"));
  EXPECT_EQ(nullptr, loop_.forced);
  OrpUvIoForcedLoop(other, 1);
  ORP_UV_LoopDestroy(&loop_);
  fail_allocation(1);
  other = watch(socket(), 0, 3);
  EXPECT_EQ(ORP_ERR_MEMORY, OrpUvIoForcedLoop(other, 1));
  EXPECT_EQ(ORP_ERR_ARGUMENT, OrpUvIoForcedLoop(nullptr, 1));
}

TEST_F(LoopTest, InnerRunFreesNothingAndEndsTheOuterPass) {
  OrpUvIo *outer = watch(readable_socket(), ORP_UV_READABLE, 1);
  OrpUvIo *second = watch(readable_socket(), ORP_UV_READABLE, 2);
  on_call = [&](OrpUvIo *self) {
    if (self == second) {
      OrpUvIoDelete(second);
      OrpUvLoopStop(&loop_);
      return;
    }
    OrpUvIoDelete(outer);
    EXPECT_EQ(ORP_OK, run(1));
    EXPECT_EQ(2u, watcher_count());
    EXPECT_EQ(0u, second->head.status & ORP_UV_ACTIVE);
  };

  EXPECT_EQ(ORP_ERR_TIMEOUT, run(1)) << "the inner stop ends the inner run only";

  EXPECT_THAT(calls, ElementsAre("1:1", "2:1"))
      << "what the inner run served is not ready any more";
  turn();
  EXPECT_EQ(0u, watcher_count());
}

TEST_F(LoopTest, LosesADescriptorThatWasClosedBehindItsBack) {
  OrpUvIo *bad = watch(socket(), 7, 1);
  OrpUvIo *without = watch(-1, ORP_UV_READABLE, 2);
  const int fd = bad->fd;
  const int orphan = socket();
  loop_.readSet[orphan / 32] |= 1u << (orphan % 32);
  loop_.maxFd = std::max(fd, orphan);

  testing::internal::CaptureStdout();  // before the number is free
  ::close(fd);
  EXPECT_EQ(ORP_ERR_TIMEOUT, run(1));
  const std::string output = testing::internal::GetCapturedStdout();

  const std::string prefix = "[ msglo]| DEBUG||";
  const std::string pid = std::to_string(::getpid());
  EXPECT_EQ(prefix + " 367|Find Process [" + pid + "] has a bogus fd [" + std::to_string(fd) +
                "] on status [0x6004]\r\n" + prefix +
                " 360|Why watcher is on status [0x6004]/[0x1]\r\n" + prefix + " 485|Fd [" +
                std::to_string(orphan) + "] in set but not in watcher\r\n",
            output);
  EXPECT_EQ(-1, bad->fd);
  EXPECT_EQ(7u, bad->armed);
  const uint32_t bit = 1u << (fd % 32);
  EXPECT_EQ(0u, loop_.readSet[fd / 32] & bit);
  EXPECT_NE(0u, loop_.writeSet[fd / 32] & bit) << "the record keeps the other sets";
  EXPECT_NE(0u, loop_.errorSet[fd / 32] & bit);

  // Another socket takes the number: it is waited for as far as it is armed anew, and no further.
  const int again = socket();
  ASSERT_EQ(fd, again);
  OrpUvIo *heir = watch(again, ORP_UV_READABLE, 3);
  EXPECT_EQ(ORP_ERR_TIMEOUT, run(1));
  OrpUvIoStart(heir, ORP_UV_WRITABLE);
  on_call = [&](OrpUvIo *) { OrpUvLoopStop(&loop_); };
  EXPECT_EQ(ORP_OK, run(0));
  EXPECT_THAT(calls, ElementsAre("3:2"));
  EXPECT_EQ(-1, without->fd);
  ::close(orphan);
}

TEST_F(LoopTest, WatcherFreedWithoutBeingStoppedDoesNotSpoilTheLoop) {
  OrpUvIo *io = watch(socket(), ORP_UV_WRITABLE, 1);
  const int fd = io->fd;
  OrpUvWatcherDelete(&io->head);
  ::close(fd);

  EXPECT_EQ(ORP_ERR_TIMEOUT, run(1)) << "its bit in the write set must not fail select for ever";
}

TEST_F(LoopTest, DescriptorsBeyondTheSetsAreKeptButNeverWaitedFor) {
  const rlimit limit = {2048, 2048};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
  const int low = readable_socket();
  std::vector<OrpUvIo *> watchers;
  OrpUvLoop before = loop_;
  for (const int number : {1024, 1025, 1100, 2047}) {
    const int fd = ::fcntl(low, F_DUPFD_CLOEXEC, number);
    ASSERT_EQ(number, fd);
    watchers.push_back(watch(fd, 7, 1));
  }
  EXPECT_EQ(0, std::memcmp(before.readSet, loop_.readSet,
                           offsetof(OrpUvLoop, selectTimeout) - offsetof(OrpUvLoop, readSet)));

  EXPECT_EQ(ORP_ERR_TIMEOUT, run(1));
  EXPECT_THAT(calls, IsEmpty());
  EXPECT_EQ(watchers[2], OrpUvIoFindByFd(&loop_, 1100));
  OrpUvIoForcedLoop(watchers[2], ORP_UV_READABLE);
  run(1);
  EXPECT_THAT(calls, ElementsAre("1:1"));
  for (OrpUvIo *io : watchers) {
    const int fd = io->fd;
    EXPECT_EQ(ORP_OK, OrpUvIoDelete(io));
    EXPECT_EQ(-1, ::fcntl(fd, F_GETFD));
  }

  OrpUvIo *last = watch(::fcntl(low, F_DUPFD_CLOEXEC, 1023), ORP_UV_READABLE, 1023);
  EXPECT_EQ(1023, OrpUvLoopGetMaxFd(&loop_));
  on_call = [&](OrpUvIo *) { OrpUvLoopStop(&loop_); };
  EXPECT_EQ(ORP_OK, run(0));
  EXPECT_EQ("1023:1", calls.back());
  OrpUvIoDelete(last);
  ::close(low);
}

TEST_F(LoopTest, SelectFailureEndsTheRun) {
  OrpUvIdle *idle = ORP_UV_IdleStart(&loop_, [](OrpUvIdle *self) {
    const ORP_TIME_ST before = {-1, 0};
    OrpUvLoopUpdateSelectTimeout(self->head.loop, &before);
  });
  ASSERT_NE(nullptr, idle);

  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_ERR_SYSTEM, run(0));
  EXPECT_EQ("Sock base select err 22.\n", testing::internal::GetCapturedStdout());
}

TEST_F(LoopTest, SynchronousSpawnModeWaitsOnlyForPipes) {
  ORP_UV_IdleStart(&loop_, [](OrpUvIdle *self) {
    if (self->head.loop->iteration == 1000) OrpUvLoopStop(self->head.loop);
  });
  OrpUvWatcherInit(&loop_, &new_record<OrpUvProcess>()->head, ORP_UV_PROCESS);
  EXPECT_EQ(Status::kOk, uv::run_loop(&loop_, 0, uv::RunMode::kSynchronousSpawn));
  EXPECT_EQ(1000u, loop_.iteration) << "turned without pause";

  OrpUvIo *pipe = watch(socket(), ORP_UV_READABLE, 1);
  EXPECT_EQ(Status::kTimeout, uv::run_loop(&loop_, 1, uv::RunMode::kSynchronousSpawn));
  OrpUvIoDelete(pipe);
  auto *timer = new_record<OrpUvTimer>();
  OrpUvTimerInit(&loop_, timer);
  OrpUvTimerStart(timer, 100000, 1, record_timer, 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(Status::kTimeout, uv::run_loop(&loop_, 1, uv::RunMode::kSynchronousSpawn));
  EXPECT_EQ("[ msglo]| DEBUG|| 713|Spawn loop shouldn't have [0x6001] type watcher\r\n",
            testing::internal::GetCapturedStdout());
}

TEST_F(LoopTest, ArmingKeepsTheSetsInStep) {
  const int fd = socket();
  const uint32_t bit = 1u << (fd % 32);
  auto *io = new_record<OrpUvIo>();
  ASSERT_EQ(ORP_OK, OrpUvIoInit(&loop_, io, fd, record_event));
  EXPECT_EQ(fd, loop_.maxFd);

  EXPECT_EQ(ORP_OK, OrpUvIoStart(io, 8));
  EXPECT_EQ(0u, io->head.status & ORP_UV_ACTIVE) << "no event named, not started";
  EXPECT_EQ(ORP_OK, OrpUvIoStart(io, ORP_UV_READABLE));
  EXPECT_EQ(ORP_OK, OrpUvIoStart(io, ORP_UV_READABLE | ORP_UV_WRITABLE));
  EXPECT_EQ(3u, io->armed);
  EXPECT_EQ(bit, loop_.readSet[fd / 32]);
  EXPECT_EQ(bit, loop_.writeSet[fd / 32]);
  EXPECT_EQ(0u, loop_.errorSet[fd / 32]);

  EXPECT_EQ(ORP_OK, OrpUvIoStop(io, ORP_UV_EXCEPTION));
  EXPECT_EQ(3u, io->armed);
  EXPECT_EQ(ORP_OK, OrpUvIoStop(io, ORP_UV_WRITABLE | ORP_UV_EXCEPTION));
  EXPECT_EQ(0u, loop_.writeSet[fd / 32]);
  EXPECT_EQ(ORP_OK, OrpUvIoStop(io, 7));
  EXPECT_EQ(0u, loop_.readSet[fd / 32]);
  EXPECT_EQ(1u, loop_.activeCount) << "stopping leaves the watcher started";

  EXPECT_EQ(ORP_OK, OrpUvIoDelete(io));
  EXPECT_EQ(-1, ::fcntl(fd, F_GETFD));
  EXPECT_EQ(io, OrpUvIoFindByFd(&loop_, -1)) << "deleted but not yet freed";
  EXPECT_EQ(fd, loop_.maxFd);
  EXPECT_EQ(nullptr, OrpUvIoFindByFd(nullptr, fd));
  EXPECT_EQ(ORP_ERR_ARGUMENT, OrpUvIoInit(&loop_, nullptr, fd, record_event));
  EXPECT_EQ(ORP_ERR_ARGUMENT, OrpUvIoStart(nullptr, 1));
  EXPECT_EQ(ORP_ERR_ARGUMENT, OrpUvIoStop(nullptr, 1));
  EXPECT_EQ(ORP_ERR_ARGUMENT, OrpUvIoDelete(nullptr));
  EXPECT_EQ(ORP_ERR_ARGUMENT, OrpUvIoSkipLoop(nullptr, 1));
}

}  // namespace
}  // namespace msgapi
