// A message's body that comes piece by piece. It is in memory as long as it may travel in the
// message itself, and then in a hand-over file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "common/unique_fd.h"

namespace msgsvr {

class SpooledBody {
 public:
  // The body is `head_size` bytes, which are filled in last, and a text.
  explicit SpooledBody(size_t head_size);
  SpooledBody(SpooledBody &&other) noexcept;
  SpooledBody(const SpooledBody &) = delete;
  SpooledBody &operator=(const SpooledBody &) = delete;
  // Removes the file, unless it was given away.
  ~SpooledBody();

  // append() and finish() are false, with errno set, when there is no room.
  bool append(std::string_view text);
  // Nothing more comes: fills in the head, and ends the text with a NUL.
  bool finish(std::span<const char> head);

  size_t text_size() const { return size_ - head_size_; }

  // Call these after finish(). A body has a file (number not 0) or is in memory.
  uint32_t file() const { return file_; }
  std::string_view memory() const { return memory_; }
  // The whole body, wherever it is; false with errno set.
  bool read(std::string *out) const;
  // From now on somebody else owns the file.
  uint32_t give_away();
  // Removes the file, and takes no further bytes.
  void discard();

 private:
  bool write(std::string_view bytes);

  size_t head_size_;
  size_t size_;
  std::string memory_;
  servers::UniqueFd fd_;
  uint32_t file_ = 0;
};

}  // namespace msgsvr
