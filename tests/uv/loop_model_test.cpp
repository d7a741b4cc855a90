// The loop against a model of it.
//
// Random operations are applied to the loop and to a plain model, many of them within callbacks and
// in inner runs. At every moment the model knows which callback must come next. Each callback is
// compared with that, and so are the records after every run.

#include <algorithm>
#include <random>

#include "support/soak.h"
#include "uv/loop_model.h"
#include "uv/process_fixture.h"

namespace msgapi {
namespace {

constexpr uint32_t kMaxDepth = 3;
constexpr uint32_t kMaxAlive = 30;
constexpr uint32_t kFar_ms = 1000000000;

class LoopModelTest : public testing::Test {
 protected:
  LoopModelTest() { test_ = this; }

  // A loop from its first watcher to its destruction.
  void play(uint32_t rounds) {
    add_idle();  // item 0, the controller
    for (uint32_t round = 0; round < rounds && !HasFailure(); ++round) {
      for (uint32_t n = pick(6); n > 0; --n) act(false);
      inner_limit_ = calls_ + 100;  // idle procedures that run the loop multiply
      run();
    }

    for (Item &item : model_.items) {
      for (const int fd : {item.fd, item.peer}) ::close(fd);
      if (is_running(item)) end(&item);
    }
    model_ = {};
    ORP_UV_LoopDestroy(&loop_);
  }

  uint32_t pick(uint32_t below) { return static_cast<uint32_t>(random_() % below); }

  void add(const Item &item) {
    item.watcher->data = model_.items.size();
    model_.items.push_back(item);
  }

  void add_idle() {
    OrpUvIdle *idle = ORP_UV_IdleStart(&loop_, [](OrpUvIdle *self) { called(self->head.data); });
    add({.kind = Item::kIdle, .watcher = &idle->head});
  }

  void start_timer(Item *item) {
    item->count = pick(3);
    const ORP_TIMER_PROC call = [](ORP_WORD id) { called(id); };
    OrpUvTimerStart(item->as<OrpUvTimer>(), kFar_ms, item->count, call, item->watcher->data);
  }

  void add_timer() {
    auto *timer = new_record<OrpUvTimer>();
    OrpUvTimerInit(&loop_, timer);
    Item item = {.kind = Item::kTimer, .watcher = &timer->head};
    start_timer(&item);
    add(item);
  }

  void add_io() {
    int pair[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    auto *io = new_record<OrpUvIo>();
    OrpUvIoInit(&loop_, io, pair[0],
                [](OrpUvIo *self, uint32_t event) { called(self->head.data, event); });
    add({.kind = Item::kIo, .watcher = &io->head, .active = false, .fd = pair[0], .peer = pair[1]});
  }

  void add_process() {
    Command command({"/bin/sleep", "1000"});
    command.options.exitProc = [](OrpUvProcess *self, int32_t, uint32_t, uint32_t signal) {
      EXPECT_EQ(9u, signal);
      called(self->head.data);
    };
    const bool is_first = loop_.reaper == nullptr;
    OrpUvProcess *process = nullptr;
    ASSERT_EQ(ORP_OK, OrpUvProcessSpawn(nullptr, &process, &command.options));
    add({.kind = Item::kProcess, .watcher = &process->head});
    if (is_first) add({.kind = Item::kReaper, .watcher = &loop_.reaper->head});
  }

  static bool is_running(const Item &item) {
    return item.kind == Item::kProcess && !item.deleted && !item.exited &&
           item.as<OrpUvProcess>()->pid > 0;
  }

  // Ends the child of a process watcher and lets the signal handler reap it.
  void end(Item *item) {
    EXPECT_EQ(0u, OrpUvProcessKill(item->as<OrpUvProcess>(), SIGKILL));
    while (item->as<OrpUvProcess>()->exited == 0) ::usleep(10);
    item->exited = true;
  }

  void change_process(Item *item) {
    if (!is_running(*item)) return;
    if (pick(4) != 0) return end(item);
    auto *process = item->as<OrpUvProcess>();
    EXPECT_EQ(ORP_OK, OrpUvWatcherDelete(&process->head));
    item->remove();
    EXPECT_EQ(0u, OrpUvProcessKill(process, SIGKILL));
    EXPECT_EQ(128 + SIGKILL, ORP_UTIL_WaitForPidEx(process->pid, 0, 1, 0));
  }

  void change_io(uint32_t id) {
    Item &item = model_.items[id];
    auto *io = item.as<OrpUvIo>();
    const uint32_t events = pick(8);
    switch (pick(6)) {
      case 0:
      case 1:
        EXPECT_EQ(ORP_OK, OrpUvIoStart(io, events));
        if ((events & ~item.armed) == 0) break;
        item.armed |= events;
        item.active = true;
        item.deleted = false;
        break;
      case 2:
        EXPECT_EQ(ORP_OK, OrpUvIoStop(io, events));
        item.armed &= ~events;
        break;
      case 3:
        EXPECT_EQ(ORP_OK, OrpUvIoForcedLoop(io, 1u << events % 3));
        model_.forced.push_back({id, 1u << events % 3});
        break;
      case 4: {
        if (item.fd < 0) break;
        char byte = 'x';
        EXPECT_EQ(1, item.readable ? ::read(item.fd, &byte, 1) : ::write(item.peer, &byte, 1));
        item.readable = !item.readable;
        break;
      }
      case 5:
        if (pick(3) != 0) break;
        EXPECT_EQ(ORP_OK, OrpUvIoDelete(io));
        item.armed = 0;
        item.fd = -1;
        item.remove();
    }
  }

  void change_timer(Item *item) {
    auto *timer = item->as<OrpUvTimer>();
    switch (pick(8)) {
      case 0:
        OrpUtilTimerDel(timer);
        item->ended = true;
        break;
      case 1:
        EXPECT_EQ(ORP_OK, OrpUvTimerDelete(timer));
        item->remove();
        break;
      case 2:
        OrpUtilTimerChgPeriod(timer, kFar_ms);
        item->due = item->firing = false;
        break;
      case 3:
        start_timer(item);
        item->firing = item->ended = item->deleted = false;
        item->active = true;
        [[fallthrough]];
      default:
        timer->expirySec = 1;
        item->due = true;
    }
  }

  void change_any(bool in_callback) {
    const uint32_t id = pick(static_cast<uint32_t>(model_.items.size()));
    Item &item = model_.items[id];
    if (item.freed || id == 0 || item.kind == Item::kReaper) return;
    if (item.kind == Item::kProcess) return change_process(&item);
    if (pick(8) == 0) {
      EXPECT_EQ(ORP_OK, OrpUvWatcherStart(item.watcher));
      if (!item.active) item.deleted = false;
      item.active = true;
    } else if (item.kind == Item::kTimer) {
      change_timer(&item);
    } else if (item.kind == Item::kIo) {
      if (in_callback && pick(6) == 0) {
        model_.skip = pick(2) != 0;
        OrpUvIoSkipLoop(item.as<OrpUvIo>(), model_.skip);
      }
      change_io(id);
    } else if (pick(3) == 0) {
      EXPECT_EQ(ORP_OK, OrpUvIdleStop(item.as<OrpUvIdle>()));
      item.remove();
    }
  }

  void act(bool in_callback) {
    const uint32_t choice = pick(12);
    if (choice < 2) {
      if (std::ranges::count(model_.items, false, &Item::freed) >= kMaxAlive) return;
      if (choice == 0) return add_io();
      if (pick(6) == 0) return add_process();
      return pick(2) != 0 ? add_timer() : add_idle();
    }
    if (choice == 2 && in_callback && model_.runs.size() < kMaxDepth && calls_ < inner_limit_) {
      run();
      model_.skip = true;
      return;
    }
    change_any(in_callback);
  }

  void run() {
    if (model_.stop) {
      // Ends at once and takes the stop, which the run around this one then never sees.
      EXPECT_EQ(ORP_OK, ORP_UV_LoopRun(&loop_, 0));
      model_.stop = false;
      return;
    }
    ExpectedRun expected(&model_);
    EXPECT_EQ(ORP_OK, ORP_UV_LoopRun(&loop_, 0));
    if (!HasFailure()) {
      EXPECT_EQ((Call{kNothing, 0}), expected.next());
    }
    model_.stop = false;
    compare_records();
  }

  static void called(ORP_WORD id, uint32_t event = 0) {
    test_->check_call({static_cast<uint32_t>(id), event});
  }

  void check_call(Call call) {
    ++calls_;
    if (!HasFailure()) {
      EXPECT_EQ(model_.runs.back()->next(), call) << "call " << calls_;
    }
    if (HasFailure()) return OrpUvLoopStop(&loop_);

    if (call.id != 0) {
      for (uint32_t n = pick(4); n > 0; --n) act(true);
      return;
    }
    const ORP_TIME_ST none = {0, 0};
    OrpUvLoopUpdateSelectTimeout(&loop_, &none);
    if (model_.runs.back()->is_first_iteration()) return;
    OrpUvLoopStop(&loop_);
    model_.stop = true;
  }

  void compare_records() {
    const OrpUvWatcher *watcher = loop_.watchers;
    uint32_t active = 0;
    for (const Item &item : model_.items) {
      if (item.freed) continue;
      ASSERT_EQ(item.watcher, watcher);
      EXPECT_EQ(item.active, (watcher->status & ORP_UV_ACTIVE) != 0);
      EXPECT_EQ(item.deleted, (watcher->status & ORP_UV_DELETED) != 0);
      if (item.kind == Item::kIo) {
        EXPECT_EQ(item.fd, item.as<OrpUvIo>()->fd);
        EXPECT_EQ(item.armed, item.as<OrpUvIo>()->armed);
      }
      active += item.active;
      watcher = watcher->link;
    }
    EXPECT_EQ(nullptr, watcher);
    EXPECT_EQ(active, loop_.activeCount);
  }

  static inline LoopModelTest *test_;
  OrpUvLoop &loop_ = *OrpUvLoopGetDefault();
  Model model_;
  std::mt19937 random_{test::seed()};
  uint64_t calls_ = 0, inner_limit_ = 0;
};

TEST_F(LoopModelTest, AgreesWithTheModel) {
  const uint32_t games = 40 * test::soak_factor();
  for (uint32_t game = 0; game < games && !HasFailure(); ++game) play(80);

  EXPECT_GT(calls_, games * 320u) << "the watchers were hardly used";
}

}  // namespace
}  // namespace msgapi
