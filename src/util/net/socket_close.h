// The one way in which sockets of the library are closed.
#pragma once

namespace msgapi::net {

// See ORP_UTIL_SocketClose. 0, or -1 with errno set.
int close_socket(int fd);

}  // namespace msgapi::net
