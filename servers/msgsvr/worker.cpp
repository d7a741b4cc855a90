#include "msgsvr/worker.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <exception>
#include <system_error>
#include <utility>

#include "common/log_line.h"

namespace msgsvr {

Worker::Worker(servers::EventLoop *loop)
    : loop_(loop), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wake_) throw std::system_error(errno, std::generic_category(), "eventfd");
  loop_->add(wake_.get(), EPOLLIN, this);
  // Only the loop's thread takes signals.
  sigset_t all, before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_BLOCK, &all, &before);
  thread_ = std::thread([this] { work(); });
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

Worker::~Worker() {
  {
    const std::lock_guard lock(mutex_);
    ends_ = true;
  }
  changed_.notify_one();
  thread_.join();
  loop_->remove(wake_.get(), this);
}

void Worker::run(Procedure job, Procedure done, const void *owner) {
  std::list<Task> task;
  task.push_back({std::move(job), std::move(done)});
  {
    const std::lock_guard lock(mutex_);
    auto line = std::ranges::find(waiting_, owner, &Line::owner);
    if (line == waiting_.end()) line = waiting_.insert(line, {owner, {}});
    line->tasks.splice(line->tasks.end(), task);
  }
  changed_.notify_one();
}

void Worker::work() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return ends_ || !waiting_.empty(); });
    if (ends_) return;
    std::list<Task> task;  // a list node is moved whole, so ending a task needs no memory
    const auto line = waiting_.begin();
    task.splice(task.begin(), line->tasks, line->tasks.begin());
    lock.unlock();
    try {
      task.front().job();
    } catch (const std::exception &error) {
      task.front().failed = true;
      servers::write_log_line("a job of the server has failed");
      servers::write_log_line(error.what());
    }
    lock.lock();
    finished_.splice(finished_.end(), task);
    // Those who have come meanwhile have their turns first.
    if (line->tasks.empty()) {
      waiting_.erase(line);
    } else {
      waiting_.splice(waiting_.end(), waiting_, line);
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wake_.get(), &one, sizeof one);
  }
}

void Worker::ready(uint32_t) {
  uint64_t count;
  if (::read(wake_.get(), &count, sizeof count) < 0) return;
  std::list<Task> finished;
  {
    const std::lock_guard lock(mutex_);
    finished.swap(finished_);
  }
  for (const Task &task : finished) {
    if (!task.failed) loop_->attempt("a job's result is lost", task.done);
  }
}

}  // namespace msgsvr
