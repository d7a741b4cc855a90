// Closing sockets.
//
// O_NONBLOCK and the connection belong to the open socket, not to the descriptor, so both are dealt
// with before close(): a copy of the descriptor that a child inherited must not keep the connection
// alive, nor stay non-blocking.

#include "util/net/socket_close.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "msgapi/net.h"

namespace msgapi::net {

int close_socket(int fd) {
  if (fd < 0) return 0;

  const int flags = ::fcntl(fd, F_GETFL);
  if (flags >= 0 && (flags & O_NONBLOCK) != 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  ::shutdown(fd, SHUT_RDWR);

  // An interrupted close() has released the descriptor (close(2)): a second try could only hit
  // another one.
  return ::close(fd) == 0 || errno == EINTR ? 0 : -1;
}

}  // namespace msgapi::net

extern "C" uint32_t ORP_UTIL_SocketClose(int32_t fd) {
  return static_cast<uint32_t>(msgapi::net::close_socket(fd));
}
