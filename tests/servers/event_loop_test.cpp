#include "common/event_loop.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/eventfd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "common/log_line.h"
#include "common/unique_fd.h"
#include "support/fd_check.h"

namespace servers {
namespace {

// A descriptor that is always ready, and a callback that throws after it has done `before`.
class Throwing final : public EventLoop::Watch {
 public:
  explicit Throwing(EventLoop *loop) : loop_(loop) { loop_->add(fd(), EPOLLIN, this); }
  ~Throwing() override { loop_->remove(fd(), this); }

  int fd() const { return fd_.get(); }
  void ready(uint32_t) override {
    if (before) before();
    throw std::runtime_error("no use");
  }
  void failed(const char *why) noexcept override {
    told = why;
    loop_->remove(fd(), this);
  }

  std::function<void()> before;
  std::string told;

 private:
  EventLoop *loop_;
  const UniqueFd fd_{::eventfd(1, EFD_CLOEXEC)};
};

TEST(EventLoop, TellsTheWatchWhoseCallbackThrewAndGoesOn) {
  const test::FdCheck fd_check;
  EventLoop loop;
  Throwing one(&loop);
  auto gone = std::make_unique<Throwing>(&loop);
  Throwing &removed = *gone;
  // A watch that has retired itself is not told, but lives until the turn has ended.
  removed.before = [&] {
    loop.remove(removed.fd(), &removed);
    loop.retire(std::move(gone));
  };

  loop.turn(0);
  loop.turn(0);

  EXPECT_EQ("no use", one.told);
  EXPECT_FALSE(gone);
  EXPECT_EQ(2u, loop.failures());
}

TEST(EventLoop, GoesOnAfterATimerAndASignalProcedureThatThrow) {
  EventLoop loop;
  std::vector<int> called;
  for (const int i : {1, 2}) {
    loop.after(std::chrono::milliseconds(i), [&called, i] {
      called.push_back(i);
      throw std::runtime_error("timer");
    });
  }
  loop.on_signal(SIGUSR2, [&called] {
    called.push_back(3);
    throw std::runtime_error("signal");
  });
  ::raise(SIGUSR2);
  while (called.size() < 3) loop.turn(1000);
  loop.after(std::chrono::milliseconds(1), [&called] { called.push_back(4); });
  while (called.size() < 4) loop.turn(1000);

  EXPECT_EQ(3u, loop.failures());
}

TEST(LogLine, ShowsNothingThatATerminalObeys) {
  for (const auto &[raw, shown] : std::vector<std::pair<std::string, std::string>>{
           {"a\nb\x1b[2J\x7f", "a?b?[2J?"},
           {"\xc2\x9b"
            "31m",
            "??31m"},           // CSI as U+009B
           {"\x9b\xc3", "??"},  // CSI as a byte, and half a character
           {"\xc3\xa9\xe2\x82\xac\xc2\xa0", "\xc3\xa9\xe2\x82\xac\xc2\xa0"},
           {"\xf0\x9f\x98\x80\xff", "\xf0\x9f\x98\x80?"}}) {
    std::string text = raw;
    hide_controls(text);
    EXPECT_EQ(shown, text);
  }
}

}  // namespace
}  // namespace servers
