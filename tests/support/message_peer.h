// The far end of a message connection, played by the test: whole messages or single bytes, in
// either byte order. Everything it waits for is bounded in time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "msgapi/msg.h"
#include "os/fd.h"

namespace test {

// A message outside the library.
struct Frame {
  ORP_MSG_HEADER_ST header = {};
  std::string body;

  uint32_t type() const { return header.ulMsgType; }
  std::string from() const;
  std::string to() const;

  // As it travels; reversed as on a swapped connection when `swap` is set.
  std::string bytes(bool swap = false) const;
};

struct FrameFields {
  uint32_t type = 0;
  std::string_view from = {};
  std::string_view to = {};
  uint32_t data = 0;
  uint32_t seq = 0;
  std::string body = {};
};
Frame make_frame(const FrameFields &fields);

class MessagePeer {
 public:
  explicit MessagePeer(int fd, bool swap = false) : fd_(fd), swap_(swap) {}

  // The next message. A failed expectation and an empty frame when none comes or it is cut short.
  Frame read();
  // Exactly `size` bytes, or fewer with a failed expectation.
  std::string read_bytes(size_t size);
  // True when nothing more is there to read: no byte has arrived.
  bool quiet();
  // Waits for the end of the stream.
  bool closed();

  void write(const Frame &frame) { write_bytes(frame.bytes(swap_)); }
  void write_bytes(std::string_view bytes);

  // Sends back what answers `request`.
  void answer(const Frame &request, uint32_t data = 0, const std::string &body = {});
  // Reads the registration and confirms it under `name`. With `swap` the client is told that
  // headers travel reversed from then on. Returns the request.
  Frame accept_registration(std::string_view name, bool swap = false, uint32_t keep_alive = 0,
                            uint32_t period_s = 0);

  void close() { fd_.reset(); }
  int fd() const { return fd_.get(); }

 private:
  msgapi::os::UniqueFd fd_;
  bool swap_;
};

// Both ends of a connection: this process's, installed in its message context under a name, and
// the peer's. Leaves the context as it found it.
class Connection {
 public:
  explicit Connection(std::string_view name = "self", bool swap = false);
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;
  ~Connection();

  int fd() const { return g_stMsgCtx.slSocket; }
  MessagePeer peer;
};

// A message server at its usual place, or on a TCP port, that plays a script on the next
// connection, in a thread.
class FakeServer {
 public:
  explicit FakeServer(std::function<void(MessagePeer &)> script, uint16_t *tcp_port = nullptr);
  FakeServer(const FakeServer &) = delete;
  FakeServer &operator=(const FakeServer &) = delete;
  // Waits for the end of the script.
  ~FakeServer();

 private:
  msgapi::os::UniqueFd listener_;
  std::thread thread_;
};

}  // namespace test
