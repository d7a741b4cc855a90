#include "common/event_loop.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

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

TEST(EventLoop, ARemovedWatchIsNotCalledForAnEventOfTheRunningTurn) {
  EventLoop loop;
  Throwing one(&loop);
  Throwing other(&loop);
  one.before = [&] { loop.remove(other.fd(), &other); };
  other.before = [&] { loop.remove(one.fd(), &one); };

  loop.turn(0);
  loop.turn(0);

  EXPECT_NE(one.told.empty(), other.told.empty());
  EXPECT_EQ(1u, loop.failures());
}

TEST(EventLoop, ATimerThatATimerStartsWaitsForTheNextTurn) {
  EventLoop loop;
  std::string called;
  const EventLoop::TimerId first = loop.after(std::chrono::milliseconds(0), [&] {
    called += "first ";
    loop.after(std::chrono::milliseconds(-1), [&] { called += "next "; });
  });
  const EventLoop::TimerId never =
      loop.after(std::chrono::milliseconds(0), [&] { called += "never "; });
  for (int i = 0; i < 2; ++i) loop.cancel(never);

  loop.turn(0);
  EXPECT_EQ("first ", called);
  loop.cancel(first);
  loop.turn(0);
  EXPECT_EQ("first next ", called);
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
  const auto shown = [](std::string text) {
    hide_controls(text);
    return text;
  };
  EXPECT_EQ("a?b?[2J?", shown("a\nb\x1b[2J\x7f"));
  EXPECT_EQ("??[31m", shown("\xc2\x9b[31m")) << "CSI as U+009B";
  EXPECT_EQ("??", shown("\x9b\xc3")) << "CSI as a byte, and half a character";
  EXPECT_EQ("\xf0\x9f\x98\x80?", shown("\xf0\x9f\x98\x80\xff"));
  EXPECT_EQ("??.???.", shown("\xe2\x82.\xf0\x9f\x98."));
  // Next to what is not the shortest form, a surrogate, or the last code point; and those.
  for (const char *text : {"\xc3\xa9\xe2\x82\xac\xc2\xa0", "\xe0\xa0\x80\xed\x9f\xbf",
                           "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"}) {
    EXPECT_EQ(text, shown(text));
  }
  EXPECT_EQ("??????", shown("\xe0\x9f\xbf\xed\xa0\x80"));
  EXPECT_EQ("????????????", shown("\xf0\x8f\xbf\xbf\xf4\x90\x80\x80\xf5\x80\x80\x80"));
}

TEST(LogLine, CountsWhatStandardErrorDoesNotTake) {
  ::signal(SIGPIPE, SIG_IGN);
  int ends[2];
  ASSERT_EQ(0, ::pipe2(ends, O_NONBLOCK | O_CLOEXEC));
  UniqueFd reader(ends[0]);
  const UniqueFd writer(ends[1]);
  const UniqueFd before(::dup(STDERR_FILENO));
  std::string bytes(1 << 20, '.');
  const auto read = [&] {
    std::string all;
    for (ssize_t got; (got = ::read(reader.get(), bytes.data(), bytes.size())) > 0;) {
      all.append(bytes.data(), static_cast<size_t>(got));
    }
    return all;
  };

  ASSERT_EQ(STDERR_FILENO, ::dup2(writer.get(), STDERR_FILENO));
  while (::write(writer.get(), bytes.data(), bytes.size()) > 0) {
  }
  write_log_line("lost in a full pipe");
  ::close(STDERR_FILENO);
  write_log_line("lost without a descriptor");
  ASSERT_EQ(STDERR_FILENO, ::dup2(writer.get(), STDERR_FILENO));
  read();
  write_log_line(std::string(5000, 'x'));
  const std::string line = read();
  reader.reset();
  write_log_line("lost without a reader");
  ASSERT_EQ(STDERR_FILENO, ::dup2(before.get(), STDERR_FILENO));
  testing::internal::CaptureStderr();
  write_log_line("last");

  EXPECT_THAT(line, testing::HasSubstr("]: (2 lines dropped) xxx"));
  EXPECT_EQ(4096u, line.size()) << "what a pipe takes at once";
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::EndsWith("]: (1 lines dropped) last\n"));
}

}  // namespace
}  // namespace servers
