// A client of the message server that speaks the wire format itself, byte by byte if it has to.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "msgapi/msg.h"

namespace test {

struct RawFrame {
  uint32_t type = 0;
  std::string to = {};
  std::string body = {};
  uint32_t data = 0;
  uint32_t sequence = 0;
  std::string from = {};  // as received; sent frames carry the client's name

  // What travels. `swapped`: in the other byte order.
  std::string bytes(const std::string &sender, bool swapped = false) const;
};

class RawClient {
 public:
  enum class Register { kYes, kNo };

  // Connects, and registers `name` unless told otherwise.
  explicit RawClient(const std::string &name, Register how = Register::kYes,
                     const std::string &socket_path = ORP_MSG_SERVER_PATH);
  // Over TCP to 127.0.0.1.
  RawClient(const std::string &name, uint16_t port);
  RawClient(RawClient &&other) noexcept;
  RawClient &operator=(RawClient &&other) = delete;
  ~RawClient();

  int fd() const { return fd_; }
  const std::string &name() const { return name_; }
  bool swapped() const { return swapped_; }

  // Registers the name, takes the byte order from the reply and returns it.
  std::optional<RawFrame> enter();

  // Blocks until everything is written; false when the server has closed.
  bool send(const RawFrame &frame) { return send_bytes(frame.bytes(name_, swapped_)); }
  bool send_bytes(std::string_view bytes);

  // The next frame; none when nothing (more) comes for `timeout_ms`, or the server has closed.
  // The header is read with a single read, which must bring all of it.
  std::optional<RawFrame> receive(int timeout_ms = 5000);
  // Exactly `count` bytes as they come, fewer when nothing more comes.
  std::string receive_bytes(size_t count, int timeout_ms = 5000);
  // Sends a request and waits for the frame of its type; others are dropped.
  std::optional<RawFrame> ask(const RawFrame &request, int timeout_ms = 5000);
  // Everything the server had for this client before now has arrived afterwards: asks it for
  // something and collects what comes before the answer.
  template <typename Each>
  bool drain(Each each) {
    send({.type = ORP_MSG_COUNT_PROCESSES, .sequence = 0xdeadbeef});
    for (;;) {
      const std::optional<RawFrame> frame = receive();
      if (!frame) return false;
      if (frame->sequence == 0xdeadbeef) return true;
      each(*frame);
    }
  }

  // True when the server closes the connection; what it sends before is dropped.
  bool closed(int timeout_ms = 5000);
  void close();

 private:
  std::string name_;
  int fd_ = -1;
  bool swapped_ = false;
};

}  // namespace test
