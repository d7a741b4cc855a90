#include "notifyserver/frame_reader.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace notifyserver {
namespace {

size_t charged(size_t room) {
  return room > FrameReader::kFree ? room : 0;
}

size_t whole_size(const NOTIFY_MSG &head) {
  return sizeof head + size_t{head.data_len};
}

}  // namespace

std::optional<Frame> FrameReader::next() {
  while (!malformed_ && !input_.empty()) {
    if (to_skip_ > 0) {
      const size_t skipped = std::min(to_skip_, input_.size());
      input_ = input_.subspan(skipped);
      to_skip_ -= skipped;
      continue;
    }

    const bool begins_here = head_size_ == 0;
    const size_t count = std::min(sizeof head_ - head_size_, input_.size());
    std::memcpy(reinterpret_cast<char *>(&head_) + head_size_, input_.data(), count);
    head_size_ += count;
    if (head_size_ < sizeof head_) {
      input_ = {};
      return {};
    }
    if (head_.data_len > ORP_NOTIFYCLT_MAX_DATA) {
      malformed_ = true;
      return {};
    }
    const size_t size = whole_size(head_);
    if (begins_here && input_.size() >= size) {
      head_size_ = 0;
      return Frame{head_, std::exchange(input_, input_.subspan(size)).first(size)};
    }

    input_ = input_.subspan(count);
    if (!store()) {
      refuse();
    } else if (unfinished_.size() == size) {
      head_size_ = 0;
      finished_ = std::move(unfinished_);
      finished_room_ = std::exchange(room_, 0);
      unfinished_ = {};
      return Frame{head_, finished_};
    }
  }
  return {};
}

// Copies what has arrived of the unfinished message. False without room for it.
bool FrameReader::store() {
  const size_t size = whole_size(head_);
  const size_t stored = std::max(unfinished_.size(), sizeof head_);
  const size_t count = std::min(size - stored, input_.size());
  if (stored + count > room_) {
    // Memory grows with what has arrived, not with what a head promises.
    const size_t room = std::min(size, std::max(stored + count, 2 * room_));
    if (!budget_->take(charged(room) - charged(room_))) return false;
    try {
      unfinished_.reserve(room);
    } catch (const std::bad_alloc &) {
      budget_->give_back(charged(room) - charged(room_));
      return false;
    }
    room_ = room;
  }
  const auto *const head = reinterpret_cast<const char *>(&head_);
  if (unfinished_.empty()) unfinished_.assign(head, head + sizeof head_);
  unfinished_.insert(unfinished_.end(), input_.begin(),
                     input_.begin() + static_cast<ptrdiff_t>(count));
  input_ = input_.subspan(count);
  return true;
}

void FrameReader::refuse() {
  to_skip_ = whole_size(head_) - std::max(unfinished_.size(), sizeof head_);
  budget_->give_back(charged(std::exchange(room_, 0)));
  unfinished_ = {};
  head_size_ = 0;
  ++refused_;
}

void FrameReader::release() {
  input_ = {};
  budget_->give_back(charged(std::exchange(finished_room_, 0)));
  finished_ = {};
}

void FrameReader::reset() {
  release();
  budget_->give_back(charged(std::exchange(room_, 0)));
  unfinished_ = {};
}

}  // namespace notifyserver
