#include "inbox.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "common/log_line.h"
#include "common/unique_fd.h"

namespace mlogserver {

struct Inbox::Layout {
  // Says that the file was made by this version of the server.
  static constexpr uint64_t kMagic = 0x324f464e494d4c58;

  uint64_t magic;
  // The kernel stores msg_len when a datagram is complete; 0 is an empty slot. The pointers are
  // those of the process that receives.
  std::array<mmsghdr, kSlots> messages;
  std::array<iovec, kSlots> parts;
  std::array<sockaddr_un, kSlots> senders;
  // Who has sent it (SCM_CREDENTIALS, unix(7)). There is room for nothing else, so the kernel
  // closes descriptors that a client passes.
  struct alignas(cmsghdr) Control {
    char bytes[CMSG_SPACE(sizeof(ucred))];
  };
  std::array<Control, kSlots> controls;
  std::array<std::array<char, kSlotSize>, kSlots> bytes;
};

namespace {

// A file that nobody else can have open or find elsewhere.
bool is_ours_alone(const struct stat &status) {
  return S_ISREG(status.st_mode) && status.st_uid == ::geteuid() && status.st_nlink == 1 &&
         (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

// A former server's file at `path`, or a new one. Everybody who logs may make files in the
// directory. In one of theirs they could say where in this process the kernel writes, or take away
// the memory below the mapping: it is replaced.
servers::UniqueFd open_file(const char *path) {
  constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_CLOEXEC;
  servers::UniqueFd fd(::open(path, kFlags));
  struct stat status {};
  if (fd && ::fstat(fd.get(), &status) == 0 && is_ours_alone(status)) return fd;
  if (::lstat(path, &status) == 0 && S_ISREG(status.st_mode)) ::unlink(path);
  return servers::UniqueFd(::open(path, kFlags | O_CREAT | O_EXCL, 0600));
}

}  // namespace

Inbox::Inbox(const std::string &path) : path_(path) {
  const servers::UniqueFd fd = open_file(path.c_str());
  // The blocks are allocated now, because a full disk inside the mapping would raise SIGBUS.
  const bool usable = fd && ::posix_fallocate(fd.get(), 0, sizeof(Layout)) == 0 &&
                      ::ftruncate(fd.get(), sizeof(Layout)) == 0;
  void *memory =
      ::mmap(nullptr, sizeof(Layout), PROT_READ | PROT_WRITE,
             usable ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS, usable ? fd.get() : -1, 0);
  if (memory == MAP_FAILED) throw std::runtime_error("no memory for the inbox");
  if (!usable) {
    servers::log_line("{} cannot be used: lines being handled are lost if the server is killed",
                      path);
  }
  layout_ = static_cast<Layout *>(memory);
  if (layout_->magic != Layout::kMagic) {
    std::memset(memory, 0, sizeof(Layout));
    layout_->magic = Layout::kMagic;
  }
}

Inbox::~Inbox() {
  ::munmap(layout_, sizeof(Layout));
  ::unlink(path_.c_str());
}

size_t Inbox::receive(int fd) {
  for (size_t i = 0; i < kSlots; ++i) {
    layout_->parts[i] = {.iov_base = layout_->bytes[i].data(), .iov_len = kSlotSize};
    layout_->messages[i] = {};
    msghdr &header = layout_->messages[i].msg_hdr;
    header.msg_iov = &layout_->parts[i];
    header.msg_iovlen = 1;
    header.msg_name = &layout_->senders[i];
    header.msg_namelen = sizeof layout_->senders[i];
    header.msg_control = layout_->controls[i].bytes;
    header.msg_controllen = sizeof layout_->controls[i].bytes;
  }
  for (;;) {
    const int count = ::recvmmsg(fd, layout_->messages.data(), kSlots, MSG_DONTWAIT, nullptr);
    if (count >= 0) return static_cast<size_t>(count);
    if (errno != EINTR) return 0;
  }
}

std::span<char> Inbox::datagram(size_t slot) {
  const size_t size = std::min<size_t>(layout_->messages[slot].msg_len, kSlotSize);
  return {layout_->bytes[slot].data(), size};
}

const sockaddr_un &Inbox::sender(size_t slot, socklen_t *size) const {
  *size = layout_->messages[slot].msg_hdr.msg_namelen;
  return layout_->senders[slot];
}

ucred Inbox::credentials(size_t slot) const {
  ucred credentials{.pid = 0, .uid = static_cast<uid_t>(-1), .gid = static_cast<gid_t>(-1)};
  // Only the lengths are taken from the header: its pointers may be a killed server's.
  msghdr header{};
  header.msg_control = layout_->controls[slot].bytes;
  header.msg_controllen = std::min<size_t>(layout_->messages[slot].msg_hdr.msg_controllen,
                                           sizeof layout_->controls[slot].bytes);
  const cmsghdr *control = CMSG_FIRSTHDR(&header);
  if (control != nullptr && control->cmsg_level == SOL_SOCKET &&
      control->cmsg_type == SCM_CREDENTIALS && control->cmsg_len >= CMSG_LEN(sizeof credentials)) {
    std::memcpy(&credentials, CMSG_DATA(control), sizeof credentials);
  }
  return credentials;
}

void Inbox::mark_done(size_t slot) {
  layout_->messages[slot].msg_len = 0;
}

}  // namespace mlogserver
