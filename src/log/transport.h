// Datagrams of the log protocol, for the log client and the exported transport calls.
#pragma once

#include <cstdint>
#include <string_view>

#include "log/status.h"
#include "msgapi/log.h"
#include "os/fd.h"

namespace msgapi::log {

// A client socket bound in the IPC directory, which removes its file when it goes, without touching
// errno. errno says why there is none.
class ClientSocket {
 public:
  explicit ClientSocket(const char *name);
  ClientSocket(const ClientSocket &) = delete;
  ClientSocket &operator=(const ClientSocket &) = delete;
  ~ClientSocket();

  explicit operator bool() const { return static_cast<bool>(fd_); }
  int fd() const { return fd_.get(); }

 private:
  const char *name_;
  os::UniqueFd fd_;
};

// As MlogSendMsg(): kOk, or kNoSocket with errno.
Status send_message(int fd, const MlogMsg *message, const char *server);
// Sends a request to the log server and receives the reply into the same block, within 2 seconds in
// all.
Status exchange_in_time(int fd, MlogMsg *message);

}  // namespace msgapi::log
