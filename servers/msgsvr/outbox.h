// What one turn of the loop sends.
//
// Sending only notes what is to be written. flush() writes to each destination once, at the end of
// the turn. Until then frames are not copied: a client's stay in the read buffer, the server's own
// in the scratch memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "common/event_loop.h"
#include "msgsvr/client.h"
#include "msgsvr/flow.h"
#include "msgsvr/journal.h"
#include "msgsvr/wire.h"

namespace msgsvr {

// Memory for messages that the server makes; valid until reset.
class Scratch {
 public:
  char *take(size_t size);
  void reset();

 private:
  std::vector<std::unique_ptr<char[]>> blocks_;
  size_t block_left_ = 0;
  char *next_ = nullptr;
};

class Outbox {
 public:
  // What Outbox needs from the owner of the clients.
  class Clients : public Flow::Clients {
   public:
    // `client` can no longer be written to.
    virtual void silence(Client &client) noexcept = 0;

   protected:
    ~Clients() = default;
  };

  Outbox(Clients *clients, servers::EventLoop *loop, Journal *journal, Flow *flow)
      : clients_(clients), loop_(loop), journal_(journal), flow_(flow) {}

  // For the services. A callback that is none of Server's handlers must call flush() at its end.

  // A message of the server's own. ulDataLen is set from `body`. When it is lost, nobody is told;
  // a `file` (its number) that travels with the message is then removed.
  void send(Client &to, Header header, std::span<const char> body = {}, uint32_t file = 0);
  // A message that `from` has sent to the server, under another header, which names no file. When
  // it is lost, `from` is told.
  void send_on(Client &to, Header header, std::span<const char> body, const Client &from,
               const Message &message);
  // The same with a `file` (its number). When it is lost, nobody is told, and the file is removed.
  void send_on_silently(Client &to, Header header, std::span<const char> body, const Client &from,
                        const Message &message, uint32_t file);
  // The answer to a request.
  void reply(Client &to, const Message &request, uint32_t data, std::span<const char> body = {});
  // A message as `from` has sent it to the server; its bytes must stay until flush(). When it is
  // lost, nobody is told.
  void pass(Client &to, const Client &from, const Message &message);
  // A message of `from` to the server is lost, and `from` is told.
  void lose(Client &from, const Message &message, Loss loss) noexcept;
  // The message is lost, to the client `to` or to everybody, and nobody is told.
  void lose_silently(const Client &from, const Message &message, Loss loss,
                     Client *to = nullptr) noexcept;
  void flush() noexcept;

  // For the code that reads what clients send.

  void post(Client &to, const OutputQueue::Frame &frame);
  // Frames that wait for flush().
  size_t posted() const { return posted_; }
  // A message of `from` reaches no client; `from` is told.
  void lose_unrouted(Client &from, const Header &header, const OutputQueue::Tag &tag,
                     Loss loss) noexcept;
  // Tells `to` that its message cannot be delivered.
  void notify_undeliverable(Client &to, const OutputQueue::Tag &tag) noexcept;
  // The frame, which was on its way to `to`, is lost; its sender is told.
  void undelivered(Client &to, const OutputQueue::Tag &tag, std::span<const char> frame,
                   Loss loss) noexcept;
  // The queue of `to` has changed.
  void after_output(Client &to) noexcept;

 private:
  // The tag of a message for which nobody is told when it is lost.
  static OutputQueue::Tag silent_tag(const Client &from, const Message &message, uint32_t file = 0);
  void send_tagged(Client &to, const Header &header, std::span<const char> body,
                   const OutputQueue::Tag &tag);

  Clients *clients_;
  servers::EventLoop *loop_;
  Journal *journal_;
  Flow *flow_;
  Scratch scratch_;
  std::vector<Client *> touched_;
  size_t posted_ = 0;
};

}  // namespace msgsvr
