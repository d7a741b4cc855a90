// The far end of a message connection, played by the test: whole messages or single bytes, in
// either byte order, without help from the library. Every wait is bounded in time.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/memory.h"
#include "msgapi/msg.h"
#include "os/fd.h"
#include "support/frame.h"
#include "support/soak.h"

namespace test {

Frame frame_of(const ORP_MSG_HEADER_ST *message);
std::ostream &operator<<(std::ostream &out, const Frame &frame);

// The message in a heap block that ends where the message ends, so that a sanitizer sees any step
// beyond it.
using MessageBlock = msgapi::Owned<ORP_MSG_HEADER_ST>;
MessageBlock make_block(const Frame &frame);

// An application's name, with zeros up to the size of its field.
std::string padded(std::string name, size_t size = ORP_APP_NAME_SIZE);

class MessagePeer {
 public:
  explicit MessagePeer(int fd, bool swapped = false, std::string name = {})
      : fd_(fd), swapped_(swapped), name_(std::move(name)) {}

  int fd() const { return fd_.get(); }
  const std::string &name() const { return name_; }
  bool swapped() const { return swapped_; }
  void close() { fd_.reset(); }

  // Blocks until everything is written; false when the other end has gone. If this peer has a name,
  // frames name it as their sender.
  bool send(const Frame &frame) { return send_bytes(frame.bytes(name_, swapped_)); }
  bool send_bytes(std::string_view bytes);

  // The next frame; none when nothing (more) comes within `timeout_ms`, or at the stream's end. A
  // single read must bring the whole header.
  std::optional<Frame> receive(int timeout_ms = kPatience_ms);
  // The same. When none comes, the test fails and the frame is empty.
  Frame read();
  // Expects that frame next, from any sender and with any number where `expected` has none.
  void expect(const Frame &expected, const char *file = __builtin_FILE(),
              int line = __builtin_LINE());
  // The next `count` bytes; fewer when nothing more comes.
  std::string receive_bytes(size_t count, int timeout_ms = kPatience_ms);
  // True when no byte is there to be read.
  bool quiet();
  // Waits for the end of the stream and drops everything before it.
  bool closed();

  // Sends an answer to `request`.
  void answer(const Frame &request, uint32_t data = 0, const std::string &body = {});
  // Reads the registration and confirms it under `name`. With `swap` the answer tells the client to
  // swap the byte order of headers from then on. Returns the request.
  Frame accept_registration(const std::string &name, bool swap = false, uint32_t keep_alive = 0,
                            uint32_t period_s = 0);

 protected:
  msgapi::os::UniqueFd fd_;
  bool swapped_;
  std::string name_;
};

// The same with `count` descriptors of /dev/zero.
bool send_with_descriptors(int fd, std::string bytes, size_t count = 1);

// A client of the message server that speaks the wire format itself, byte by byte if it has to.
class RawClient : public MessagePeer {
 public:
  enum class Register { kYes, kNo };

  // Connects, and registers `name` unless told otherwise.
  explicit RawClient(const std::string &name, Register how = Register::kYes,
                     const std::string &socket_path = ORP_MSG_SERVER_PATH);
  // Over TCP to 127.0.0.1.
  RawClient(const std::string &name, uint16_t port);

  // Registers the name, takes the byte order from the reply and returns it.
  std::optional<Frame> enter();

  // Sends a request and waits for the frame of its type; others are dropped.
  Frame ask(const Frame &request);
  // Asks the server for something and returns the frames that come before the answer: everything
  // that the server had for this client.
  std::vector<Frame> drain();
};

// Both ends of a connection: this process's, installed in its message context under a name, and
// the peer's. Leaves the context as it found it.
class Connection {
 public:
  explicit Connection(std::string_view name = "self", bool swap = false);
  ~Connection();

  int fd() const { return g_stMsgCtx.slSocket; }
  MessagePeer peer;
};

// A message server at its usual place, or on a TCP port of this machine, that plays a script on the
// next connection, in a thread.
class FakeServer {
 public:
  explicit FakeServer(std::function<void(MessagePeer &)> script, uint16_t tcp_port = 0);
  // Waits for the end of the script.
  ~FakeServer();

 private:
  msgapi::os::UniqueFd listener_;
  std::thread thread_;
};

}  // namespace test
