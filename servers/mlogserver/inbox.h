// The datagrams that have been taken from the socket and not been handled yet.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstddef>
#include <span>
#include <string>

#include "msgapi/log.h"

namespace mlogserver {

// The kernel receives into a shared mapping of a file in memory. So a datagram that has left the
// socket is not lost with the process: the next server finds it in the file. A datagram that was
// handled but not yet marked as done is then handled twice.
class Inbox {
 public:
  static constexpr size_t kSlots = 64;
  // Room for the longest message and one byte more: a datagram that fills it was too long.
  static constexpr size_t kSlotSize = sizeof(MlogMsg) + 1;

  // Without the file (no room, no right) the inbox is private memory, and says so.
  explicit Inbox(const std::string &path);
  Inbox(const Inbox &) = delete;
  Inbox &operator=(const Inbox &) = delete;
  // Removes the file.
  ~Inbox();

  // Takes up to kSlots datagrams from the socket without waiting. Returns how many, 0 when there
  // are none.
  size_t receive(int fd);

  // The datagram in a slot, empty when there is none or it is done.
  std::span<char> datagram(size_t slot);
  const sockaddr_un &sender(size_t slot, socklen_t *size) const;
  // Who the kernel says has sent it; process 0 and nobody's ids when it does not say.
  ucred credentials(size_t slot) const;
  void mark_done(size_t slot);

 private:
  struct Layout;

  std::string path_;
  Layout *layout_;
};

}  // namespace mlogserver
