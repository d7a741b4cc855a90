// Listening sockets, and who is at the other end of a connection.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

#include "common/unique_fd.h"

namespace servers {

// Servers that look whether another one has a socket beside `path`, and put theirs there or remove
// it, take turns: until the result is closed the others wait (flock(2) on the directory). Without
// turns one could remove what the other has just put there. Whoever may read the directory can
// hold such a lock, too; a server waits for a second at most.
UniqueFd take_turn(const std::string &path);

// A non-blocking listening stream socket at `path`, with exactly the permissions `mode` from the
// moment it exists. Replaces a socket that a dead server left, but not a living server's. Throws
// std::runtime_error with a text for the user.
UniqueFd listen_unix(const std::string &path, mode_t mode);
// Removes the socket if nobody listens there: another server may have taken the path over.
void remove_unix(const std::string &path);

// The same on "ADDRESS:PORT" (a numeric IPv4 address, or "[ADDRESS]:PORT" for IPv6), the
// port being 1 to 65535.
UniqueFd listen_tcp(const std::string &address_and_port);

// Lets the process have as many descriptors as it may: every connection needs one. Returns how
// many.
size_t raise_descriptor_limit();

// Accepts connections from a listening socket; never leaves one waiting for want of descriptors.
class Acceptor {
 public:
  explicit Acceptor(UniqueFd listener);

  int fd() const { return listener_.get(); }
  // The next connection, non-blocking and close-on-exec, or none when nobody waits. When the
  // process has no descriptor left, the connection is closed at once and a line is logged.
  UniqueFd accept();

 private:
  UniqueFd listener_;
  UniqueFd spare_;  // given up for a moment to close a connection that cannot be served
};

// "ADDRESS:PORT" of the other end of a TCP connection, empty for another kind.
std::string peer_address(int fd);
// The same of this end.
std::string local_address(int fd);

}  // namespace servers
