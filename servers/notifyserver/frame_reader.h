// Cuts what a client sends into whole messages.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "msgapi/notify.h"

namespace notifyserver {

// A whole message as it arrived. The bytes are valid until the reader's next release().
struct Frame {
  NOTIFY_MSG head;
  std::span<char> bytes;  // head and data

  std::span<const char> data() const { return bytes.subspan(sizeof head); }
};

// Memory that several readers share. It may itself be a part of a larger budget.
class Budget {
 public:
  explicit Budget(size_t limit, Budget *whole = nullptr) : limit_(limit), whole_(whole) {}

  bool take(size_t size) {
    if (size > limit_ - used_ || (whole_ != nullptr && !whole_->take(size))) return false;
    used_ += size;
    return true;
  }
  void give_back(size_t size) {
    assert(size <= used_);
    used_ -= size;
    if (whole_ != nullptr) whole_->give_back(size);
  }
  size_t used() const { return used_; }

 private:
  size_t limit_;
  Budget *whole_;
  size_t used_ = 0;
};

class FrameReader {
 public:
  // A reader may keep so much of an unfinished message without taking it from the budget. So short
  // messages that arrive in pieces pass whatever other clients do.
  static constexpr size_t kFree = 4096;

  // `budget` must live until reset().
  explicit FrameReader(Budget *budget) : budget_(budget) {}
  FrameReader(const FrameReader &) = delete;
  FrameReader &operator=(const FrameReader &) = delete;
  ~FrameReader() { assert(room_ == 0 && finished_room_ == 0); }

  // The next bytes, which must stay where they are until release().
  void feed(std::span<char> bytes) { input_ = bytes; }

  // The next whole message, or nothing when more bytes are needed or the stream is malformed.
  // The beginning of an unfinished message is copied.
  std::optional<Frame> next();

  // Messages that were thrown away for want of room, or are being thrown away as they arrive.
  uint64_t refused() const { return refused_; }

  // Ends the life of all frames.
  void release();
  // Drops everything and gives all memory back to the budget.
  void reset();

  // A head states more data than ORP_NOTIFYCLT_MAX_DATA: where the next message begins is unknown.
  bool malformed() const { return malformed_; }
  // Whether only a part of a message is there.
  bool inside_message() const { return head_size_ > 0 || to_skip_ > 0; }

 private:
  bool store();
  void refuse();

  Budget *budget_;
  std::span<char> input_;         // not looked at yet
  NOTIFY_MSG head_{};             // of the message that arrives in pieces
  size_t head_size_ = 0;          // bytes of it that are there
  std::vector<char> unfinished_;  // this message from its head on, once the head is whole
  size_t room_ = 0;               // reserved there
  std::vector<char> finished_;    // the message that was given out last of those in pieces
  size_t finished_room_ = 0;
  size_t to_skip_ = 0;  // bytes of a refused message that have not arrived
  uint64_t refused_ = 0;
  bool malformed_ = false;
};

}  // namespace notifyserver
