// A message's body that comes piece by piece: in memory as long as it may travel in the message
// itself, in a hand-over file from then on.
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
  // A text follows `head_size` bytes, which are known last.
  explicit SpooledBody(size_t head_size);
  SpooledBody(SpooledBody &&other) noexcept;
  SpooledBody(const SpooledBody &) = delete;
  SpooledBody &operator=(const SpooledBody &) = delete;
  // Removes the file, unless it was given away.
  ~SpooledBody();

  // Both false, with errno set, when there is no room.
  bool append(std::string_view text);
  // Nothing more comes: fills in the head, and ends the text with a NUL.
  bool finish(std::span<const char> head);

  size_t text_size() const { return size_ - head_size_; }

  // Once it is finished. A body has a file (number not 0) or is in memory.
  uint32_t file() const { return file_; }
  std::string_view memory() const { return memory_; }
  // The whole body, wherever it is; false with errno set.
  bool read(std::string *out) const;
  // The file is somebody else's from now on.
  uint32_t give_away();
  // Removes the file.
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
