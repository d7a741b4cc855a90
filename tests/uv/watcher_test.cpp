#include "uv/freeing.h"

#include "base/memory.h"
#include "uv/loop_fixture.h"

namespace msgapi {
namespace {

using WatcherTest = LoopTest;

TEST_F(WatcherTest, IterationVisitsEachOnceInOrderAndSurvivesDeletionAndARun) {
  std::vector<OrpUvWatcher *> watchers(3), visited;
  for (OrpUvWatcher *&watcher : watchers) watcher = &new_record<OrpUvIdle>()->head;
  for (const size_t i : {2u, 0u, 1u, 2u}) OrpUvWatcherInit(&loop_, watchers[i], ORP_UV_IDLE);

  const auto visit = [](OrpUvWatcher *watcher, ORP_WORD argument) {
    reinterpret_cast<std::vector<OrpUvWatcher *> *>(argument)->push_back(watcher);
    OrpUvWatcherDelete(watcher);
    OrpUvWatcherDelete(watcher->link);
    ORP_UV_LoopRun(watcher->loop, 1);
  };
  EXPECT_EQ(ORP_OK, OrpUvWatcherIterateItem(&loop_, reinterpret_cast<ORP_WORD>(&visited), visit));

  EXPECT_EQ(watchers, visited) << "initialised twice, the last one stands once at the end";
  turn(&loop_);
  EXPECT_EQ(nullptr, loop_.watchers);
  EXPECT_EQ(ORP_ERR_SYSTEM, OrpUvWatcherIterateItem(&loop_, 0, nullptr));
}

TEST_F(WatcherTest, SafeFreeWorksOnlyWithItsWatcher) {
  void *data = std::malloc(1);
  ASSERT_EQ(ORP_ERR_ARGUMENT, OrpUvLoopSafeFree(&loop_, data));
  EXPECT_EQ(ORP_ERR_ARGUMENT, OrpUvLoopSafeFree(nullptr, data));

  loop_.deferredFree = ORP_UV_IdleStart(&loop_, uv::free_deferred_data);
  fail_allocation(1);
  EXPECT_EQ(ORP_ERR_MEMORY, OrpUvLoopSafeFree(&loop_, data));
  EXPECT_EQ(ORP_OK, OrpUvLoopSafeFree(&loop_, data));
  EXPECT_EQ(ORP_OK, OrpUvLoopSafeFree(&loop_, nullptr));
  EXPECT_NE(0u, loop_.deferredFree->head.data);
  run();
  EXPECT_EQ(0u, loop_.deferredFree->head.data);

  // The loop frees what waits to be freed; the leak checker watches.
  EXPECT_EQ(ORP_OK, OrpUvLoopSafeFree(&loop_, std::malloc(1)));
  OrpUvIoForcedLoop(watch(socket(), 1), 1);
  ORP_UV_LoopDestroy(&loop_);
  OrpUvLoop fresh;
  OrpUvLoopInit(&fresh);
  EXPECT_EQ(0, std::memcmp(&fresh, &loop_, sizeof fresh));
}

TEST_F(WatcherTest, DestroyInsideACallbackLeavesTheRecordsToTheRun) {
  for (uint32_t name = 1; name <= 3; ++name) watch(readable_socket(), ORP_UV_READABLE, name);
  on_call = [&](OrpUvIo *io) {
    ORP_UV_LoopDestroy(&loop_);
    EXPECT_EQ(1u, io->head.data) << "the record outlives its callback";
    OrpUvLoopStop(&loop_);
  };

  EXPECT_EQ(ORP_OK, run(0));

  EXPECT_THAT(calls, testing::ElementsAre("1:1"));
  EXPECT_EQ(0u, loop_.readSet[0]);
}

}  // namespace
}  // namespace msgapi
