// Single behaviours of the loop; loop_model_test.cpp covers their combinations.

#include "uv/loop.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>

#include "base/memory.h"
#include "msgapi/process.h"
#include "uv/loop_fixture.h"

namespace msgapi {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

void record_timer(ORP_WORD name) {
  LoopTest::recorded("timer" + std::to_string(name));
}

void record_idle(OrpUvIdle *idle) {
  LoopTest::recorded("idle" + std::to_string(idle->head.data));
}

TEST_F(LoopTest, IteratesTimersThenIdleProceduresThenDescriptorsByEvent) {
  watch(readable_socket(), ORP_UV_READABLE | ORP_UV_WRITABLE, 1);
  watch(changed_mounts(), ORP_UV_EXCEPTION, 2);
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

TEST_F(LoopTest, IdleWatcherOfTheCallerIsCalledOnceItHasAProcedure) {
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_UV_IdleInit(&loop_, nullptr));
  auto *idle = new_record<OrpUvIdle>();
  ASSERT_EQ(ORP_OK, ORP_UV_IdleInit(&loop_, idle));
  idle->head.data = 3;
  turn(&loop_);
  EXPECT_THAT(calls, IsEmpty());

  idle->proc = record_idle;
  turn(&loop_);
  EXPECT_THAT(calls, ElementsAre("idle3"));
}

TEST_F(LoopTest, StopEndsTheRunBeforeTheWaitAndIsForgotten) {
  OrpUvLoop *loop = OrpUvLoopGetDefault();
  ORP_UV_IdleStart(nullptr, [](OrpUvIdle *self) {
    record_idle(self);
    OrpUvLoopStop(self->head.loop);
  });

  OrpUvLoopStop(nullptr);  // which is not the default loop here
  EXPECT_EQ(ORP_OK, OrpUvLoopRun(nullptr, 0));
  EXPECT_EQ(0u, loop->iteration);
  EXPECT_EQ(ORP_OK, OrpUvLoopRun(loop, 0));
  OrpUvLoopStop(loop);
  EXPECT_EQ(ORP_OK, OrpUvLoopRun(loop, 0)) << "stopped before it began";

  EXPECT_THAT(calls, ElementsAre("idle0", "idle0"));
}

TEST_F(LoopTest, IdleProceduresMayLowerTheWait) {
  ORP_UV_IdleStart(&loop_, [](OrpUvIdle *self) {
    const ORP_TIME_ST longer = {9, 0}, shorter = {0, 2}, same_second = {0, 1};
    const ORP_TIME_ST normalised_to_zero = {-1, 1000000};
    OrpUvLoop *loop = self->head.loop;
    OrpUvLoopUpdateSelectTimeout(loop, &longer);
    OrpUvLoopUpdateSelectTimeout(loop, nullptr);
    EXPECT_EQ(loop->idleTime / 1000, static_cast<uint32_t>(loop->selectTimeout.seconds));
    OrpUvLoopUpdateSelectTimeout(loop, &shorter);
    OrpUvLoopUpdateSelectTimeout(loop, &same_second);
    EXPECT_EQ(1, loop->selectTimeout.microseconds);
    if (loop->iteration == 1) OrpUvLoopUpdateSelectTimeout(loop, &normalised_to_zero);
    if (loop->iteration == 2) OrpUvLoopStop(loop);
  });

  EXPECT_EQ(ORP_OK, run(1000));
  EXPECT_EQ(2u, loop_.iteration) << "0 of 1 seconds are not the idle time";
  EXPECT_EQ(ORP_ERR_TIMEOUT, run(999)) << "0 of 0 seconds are";
  EXPECT_EQ(1u, loop_.iteration);
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

TEST_F(LoopTest, LosesADescriptorThatWasClosedBehindItsBack) {
  OrpUvIo *bad = watch(socket(), 7, 1);
  watch(-1, ORP_UV_READABLE, 2);
  const int fd = bad->fd, orphan = socket();
  loop_.readSet[orphan / 32] |= 1u << (orphan % 32);
  loop_.maxFd = std::max(fd, orphan);

  testing::internal::CaptureStdout();  // before the number is free
  ::close(fd);
  EXPECT_EQ(ORP_ERR_TIMEOUT, run(1));
  const std::string prefix = "[ msglo]| DEBUG||";
  EXPECT_EQ(prefix + " 367|Find Process [" + std::to_string(::getpid()) + "] has a bogus fd [" +
                std::to_string(fd) + "] on status [0x6004]\r\n" + prefix +
                " 360|Why watcher is on status [0x6004]/[0x1]\r\n" + prefix + " 485|Fd [" +
                std::to_string(orphan) + "] in set but not in watcher\r\n",
            testing::internal::GetCapturedStdout());
  EXPECT_EQ(-1, bad->fd);
  EXPECT_EQ(7u, bad->armed);
  const uint32_t bit = 1u << (fd % 32);
  EXPECT_EQ(0u, loop_.readSet[fd / 32] & bit);
  EXPECT_NE(0u, loop_.writeSet[fd / 32] & loop_.errorSet[fd / 32] & bit)
      << "the record keeps the other sets";

  // Another socket gets the number. The loop waits only for the events that are armed anew.
  const int again = socket();
  ASSERT_EQ(fd, again);
  OrpUvIo *heir = watch(again, ORP_UV_READABLE, 3);
  EXPECT_EQ(ORP_ERR_TIMEOUT, run(1));
  OrpUvIoStart(heir, ORP_UV_WRITABLE);
  on_call = [&](OrpUvIo *) { OrpUvLoopStop(&loop_); };
  EXPECT_EQ(ORP_OK, run(0));
  EXPECT_THAT(calls, ElementsAre("3:2"));
  ::close(orphan);
}

TEST_F(LoopTest, WatcherFreedWithoutBeingStoppedDoesNotSpoilTheLoop) {
  OrpUvIo *io = watch(socket(), ORP_UV_WRITABLE, 1);
  OrpUvWatcherDelete(&io->head);
  ::close(io->fd);

  EXPECT_EQ(ORP_ERR_TIMEOUT, run(1)) << "its bit in the write set must not fail select for ever";
}

TEST_F(LoopTest, DescriptorsBeyondTheSetsAreKeptButNeverWaitedFor) {
  const rlimit limit = {2048, 2048};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
  const int low = readable_socket();
  const OrpUvLoop before = loop_;
  for (const int number : {1024, 1100, 2047}) {
    ASSERT_EQ(number, watch(::fcntl(low, F_DUPFD_CLOEXEC, number), 7, 1)->fd);
  }
  EXPECT_EQ(0, std::memcmp(before.readSet, loop_.readSet,
                           offsetof(OrpUvLoop, selectTimeout) - offsetof(OrpUvLoop, readSet)));

  EXPECT_EQ(ORP_ERR_TIMEOUT, run(1));
  EXPECT_THAT(calls, IsEmpty());

  watch(::fcntl(low, F_DUPFD_CLOEXEC, 1023), ORP_UV_READABLE, 1023);
  EXPECT_EQ(1023, OrpUvLoopGetMaxFd(&loop_));
  on_call = [&](OrpUvIo *) { OrpUvLoopStop(&loop_); };
  EXPECT_EQ(ORP_OK, run(0));
  EXPECT_THAT(calls, ElementsAre("1023:1"));
  ::close(low);
}

TEST_F(LoopTest, SelectFailureEndsTheRun) {
  ORP_UV_IdleStart(&loop_, [](OrpUvIdle *self) {
    const ORP_TIME_ST before = {-1, 0};
    OrpUvLoopUpdateSelectTimeout(self->head.loop, &before);
  });

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
  const auto expect_sets = [&](uint32_t read, uint32_t write) {
    EXPECT_EQ(read | write, io->armed);
    EXPECT_EQ(read != 0 ? bit : 0, loop_.readSet[fd / 32]);
    EXPECT_EQ(write != 0 ? bit : 0, loop_.writeSet[fd / 32]);
  };

  EXPECT_EQ(ORP_OK, OrpUvIoStart(io, 8));
  EXPECT_EQ(0u, io->head.status & ORP_UV_ACTIVE) << "no event named, not started";
  OrpUvIoStart(io, ORP_UV_READABLE);
  OrpUvIoStart(io, ORP_UV_READABLE | ORP_UV_WRITABLE);
  OrpUvIoStop(io, ORP_UV_EXCEPTION);
  expect_sets(ORP_UV_READABLE, ORP_UV_WRITABLE);
  OrpUvIoStop(io, ORP_UV_WRITABLE | ORP_UV_EXCEPTION);
  expect_sets(ORP_UV_READABLE, 0);
  OrpUvIoStop(io, 7);
  expect_sets(0, 0);
  EXPECT_EQ(1u, loop_.activeCount) << "stopping leaves the watcher started";

  EXPECT_EQ(ORP_OK, OrpUvIoDelete(io));
  EXPECT_EQ(-1, ::fcntl(fd, F_GETFD));
  EXPECT_EQ(io, OrpUvIoFindByFd(&loop_, -1)) << "deleted but not yet freed";
  EXPECT_EQ(fd, loop_.maxFd);
  fail_allocation(1);
  EXPECT_EQ(ORP_ERR_MEMORY, OrpUvIoForcedLoop(io, 1));
}

}  // namespace
}  // namespace msgapi
