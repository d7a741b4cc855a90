// The server's socket and the messages that come through it.
#pragma once

#include <sys/un.h>

#include <cstdint>
#include <map>
#include <span>
#include <string>

#include "common/event_loop.h"
#include "common/unique_fd.h"
#include "inbox.h"
#include "msgapi/log.h"
#include "ring_store.h"

namespace mlogserver {

struct Counters {
  uint64_t lines = 0;
  uint64_t requests = 0;
  uint64_t malformed = 0;      // datagrams that no client sends
  uint64_t unanswered = 0;     // replies that their client could not take
  uint64_t stats_refused = 0;  // statistics of modules beyond the limit, levels from others
  uint64_t given_up = 0;       // requests that failed with a call of the server's own
};

class Server final : public servers::EventLoop::Watch {
 public:
  // Takes over the lines that a killed server left. Throws std::runtime_error when it cannot have
  // the socket, for instance because another server runs.
  Server(servers::EventLoop *loop, RingStore *store);
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;
  // Removes the socket's file.
  ~Server() override;

  int fd() const { return fd_.get(); }
  const Counters &counters() const { return counters_; }

  // Handles the messages that are queued, in order.
  void drain();
  void ready(uint32_t) override { drain(); }

 private:
  struct Sender {
    const sockaddr_un *address;
    socklen_t size;
    ucred who;
  };

  void take_over();
  void handle(std::span<char> datagram, const Sender &sender) noexcept;
  bool dispatch(const MlogMsg &head, std::span<char> payload, const Sender &sender);
  bool keep_line(std::span<const char> payload, pid_t sender);
  bool set_statistics(std::span<const char> payload, const Sender &sender);
  // Questions about the server itself; questions.h names them.
  bool set_own(const std::string &question, const std::string &text, const Sender &sender);
  std::string answer_own(const std::string &question) const;
  bool get_statistics(std::span<const char> payload, const Sender &sender);
  void flush(const Sender &sender);
  void await_notice();
  void reply(const MlogMsg &message, size_t payload_size, const Sender &sender);

  servers::EventLoop *loop_;
  RingStore *store_;
  bool awaits_notice_ = false;
  servers::UniqueFd fd_;
  ino_t socket_inode_ = 0;  // of the socket's file
  std::string line_;        // the line that is being kept; never grows
  Counters counters_;
  std::map<std::string, std::string> statistics_;
  servers::UniqueFd turn_;  // at the end, until the inbox is removed, too
  Inbox inbox_;
};

}  // namespace mlogserver
