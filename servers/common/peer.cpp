#include "common/peer.h"

#include <cassert>
#include <utility>

#include "common/log_line.h"

namespace servers {
namespace {

// SO_PEERCRED of unix(7). Over TCP the kernel knows no user.
ucred credentials_of(int fd) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  const bool known = ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0;
  if (!known || credentials.uid == Peer::kNobody) return {0, Peer::kNobody, 0};
  return credentials;
}

}  // namespace

Peer::Peer(EventLoop *loop, UniqueFd connection, size_t queue_limit,
           OutputQueue::Observer *observer)
    : fd(std::move(connection)),
      peer(credentials_of(fd.get())),
      out(fd.get(), queue_limit, observer),
      loop_(loop) {}

Peer::~Peer() {
  assert(!watched_);
}

void Peer::begin_watch() {
  assert(!watched_);
  loop_->add(fd.get(), EPOLLIN, this);
  interest_ = EPOLLIN;
  watched_ = true;
}

void Peer::update_watch(bool input) {
  assert(watched_);
  const uint32_t interest = (input ? EPOLLIN : 0u) | (out.blocked() ? EPOLLOUT : 0u);
  if (interest == interest_) return;
  loop_->change(fd.get(), interest, this);
  interest_ = interest;
}

void Peer::end_watch() noexcept {
  assert(watched_);
  loop_->remove(fd.get(), this);
  watched_ = false;
}

void Peer::note_overflow(uint64_t count) noexcept {
  if (count == 0 || std::exchange(overflowed_, overflowed_ + count) > 0) return;
  loop_->attempt("a loss is not logged", [this] {
    log_line("{} does not read: its queue of {} bytes is full, messages for it are lost", label(),
             out.limit());
  });
}

void Peer::note_empty() noexcept {
  if (overflowed_ == 0) return;
  loop_->attempt("the end of a loss is not logged", [this] {
    log_line("{} reads again; {} messages for it were lost", label(), overflowed_);
  });
  overflowed_ = 0;
}

}  // namespace servers
