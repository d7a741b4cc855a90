#include "msgsvr/spooled_body.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "common/write_all.h"
#include "msgsvr/hand_over.h"

namespace msgsvr {

SpooledBody::SpooledBody(size_t head_size)
    : head_size_(head_size), size_(head_size), memory_(head_size, '\0') {}

SpooledBody::SpooledBody(SpooledBody &&other) noexcept
    : head_size_(other.head_size_),
      size_(other.size_),
      memory_(std::move(other.memory_)),
      fd_(std::move(other.fd_)),
      file_(std::exchange(other.file_, 0)) {}

SpooledBody::~SpooledBody() {
  discard();
}

void SpooledBody::discard() {
  fd_.reset();
  if (file_ != 0) remove_hand_over(std::exchange(file_, 0));
}

bool SpooledBody::write(std::string_view bytes) {
  size_ += bytes.size();
  if (file_ == 0 && size_ <= ORP_MSG_MAX_INLINE_BODY) {
    memory_ += bytes;
    return true;
  }
  if (file_ == 0) {
    fd_ = create_hand_over(&file_);
    if (!fd_ || !servers::write_all(fd_.get(), memory_)) return false;
    memory_.clear();
    memory_.shrink_to_fit();
  }
  return servers::write_all(fd_.get(), bytes);
}

bool SpooledBody::append(std::string_view text) {
  return write(text);
}

bool SpooledBody::finish(std::span<const char> head) {
  constexpr char kNul = '\0';
  if (!write({&kNul, 1})) return false;
  if (file_ == 0) {
    memory_.replace(0, head_size_, head.data(), head.size());
    return true;
  }
  if (::pwrite(fd_.get(), head.data(), head.size(), 0) != static_cast<ssize_t>(head.size())) {
    return false;
  }
  fd_.reset();
  return true;
}

bool SpooledBody::read(std::string *out) const {
  if (file_ == 0) {
    *out = memory_;
    return true;
  }
  const auto path = hand_over_body(file_);
  const servers::UniqueFd file(::open(path.data(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!file) return false;
  out->resize(size_);
  size_t have = 0;
  while (have < size_) {
    const ssize_t count = ::read(file.get(), out->data() + have, size_ - have);
    if (count < 0 && errno == EINTR) continue;
    if (count == 0) errno = EIO;
    if (count <= 0) return false;
    have += static_cast<size_t>(count);
  }
  return true;
}

uint32_t SpooledBody::give_away() {
  return std::exchange(file_, 0);
}

}  // namespace msgsvr
