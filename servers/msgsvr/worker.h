// A thread for work that may block, so that the loop does not.
#pragma once

#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

#include "common/event_loop.h"
#include "common/unique_fd.h"

namespace msgsvr {

// Does one job after the other: those of one owner in the order in which they were given, and the
// owners take turns. So an owner with many jobs keeps another one waiting for a single job.
class Worker final : private servers::EventLoop::Watch {
 public:
  using Procedure = std::function<void()>;

  explicit Worker(servers::EventLoop *loop);  // throws std::system_error
  // Waits for the job that is running; the jobs after it are dropped.
  ~Worker() override;

  // Calls `job` on the thread and then `done` from the loop, unless the job has thrown. The loop
  // destroys both. `owner` only tells owners apart.
  void run(Procedure job, Procedure done, const void *owner = nullptr);

 private:
  struct Task {
    Procedure job;
    Procedure done;
    bool failed = false;
  };
  // The jobs of one owner.
  struct Line {
    const void *owner;
    std::list<Task> tasks;
  };

  void ready(uint32_t events) override;
  void work();

  servers::EventLoop *loop_;
  servers::UniqueFd wake_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::list<Line> waiting_;  // whose turn it is comes first, also while its job runs
  std::list<Task> finished_;
  bool ends_ = false;
  std::thread thread_;  // last: it uses all of the above
};

}  // namespace msgsvr
