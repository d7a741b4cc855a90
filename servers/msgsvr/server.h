// The message server's core: connections, and the routing of frames between them.
//
// One turn of the loop reads what one client has sent, routes every whole frame in it, and then
// writes to each destination once (outbox.h).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/event_loop.h"
#include "common/listen.h"
#include "msgsvr/accounts.h"
#include "msgsvr/client.h"
#include "msgsvr/flow.h"
#include "msgsvr/gate.h"
#include "msgsvr/journal.h"
#include "msgsvr/names.h"
#include "msgsvr/options.h"
#include "msgsvr/outbox.h"
#include "msgsvr/wire.h"

namespace msgsvr {

class Server final : private Outbox::Clients {
 public:
  using Handler = std::function<void(Client &from, const Message &message)>;
  using GoneHandler = std::function<void(Client &client)>;
  using RefusedHandler = std::function<void(Client &from, const Header &header)>;

  Server(EventLoop *loop, const Options &options);
  ~Server();
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  // Serves the connections that arrive at a listening socket.
  void listen(UniqueFd listener);
  // Serves a connected stream socket. Null, with the socket closed, on failure or when its user has
  // too many.
  Client *adopt(UniqueFd fd) noexcept;

  // For the services.

  // `handler` gets every message of this type for the server, with its whole body.
  void serve(uint32_t type, Handler handler);
  // `handler` gets messages for the server whose type has no handler of its own. It returns false
  // for those that it does not serve.
  void serve_rest(std::function<bool(Client &, const Message &)> handler);
  // `handler` is told of every client that is gone. It may send, but not to that client.
  void on_gone(GoneHandler handler) { gone_.push_back(std::move(handler)); }
  // `handler` is told of every message for the server that is too long, or whose hand-over file
  // cannot be read.
  void on_refused(RefusedHandler handler) { refused_messages_.push_back(std::move(handler)); }

  EventLoop &loop() { return *loop_; }
  const Options &options() const { return options_; }
  const std::unordered_map<uint32_t, std::unique_ptr<Client>> &clients() const { return clients_; }
  Client *by_id(uint32_t id) override;
  Names &names() { return names_; }
  Outbox &outbox() { return outbox_; }
  Accounts &accounts() { return accounts_; }
  Gate &gate() { return gate_; }
  // Ends that client for the reason `why`; false when it is not there.
  bool disconnect(uint32_t id, std::string_view why) noexcept;
  // Notes that `client` may not have more of `what`, and tells it that its request is lost.
  void refuse(Client &client, const Message &request, std::string_view what);

  Journal &journal() { return journal_; }
  std::vector<std::string> statistics() const;
  // Tries once more to write what waits, and ends every client.
  void shut_down();

 private:
  friend struct Client;
  struct Listener;

  void take_in(UniqueFd fd);
  bool is_served(const Client &client);
  void fail(Client &client, const char *why) noexcept;
  void update_interest(Client &client) noexcept override;
  void flush() noexcept override { outbox_.flush(); }
  void readable(Client &from);
  void writable(Client &to);
  void take_with_descriptor(Client &from, std::span<char> bytes, bool full, UniqueFd fd);
  void pass_descriptor(Client &from, UniqueFd fd);

  void take(Client &from, std::span<char> bytes);
  std::span<char> pass_on(Client &from, std::span<char> bytes);
  std::span<char> assemble(Client &from, std::span<char> bytes);
  bool admit_unfinished(Client &from, size_t size);
  void discard_rest(Client &from, std::span<const char> begin, const Header &header,
                    const Route &route);
  void begin_frame(Client &from, std::span<char> begin, Header header, const Route &route);
  void begin_stream(Client &from, Client &to, std::span<char> begin, const Header &header);
  const Route *resolve(Client &from, const Header &header);
  void check_sender(Client &from, std::span<char> frame, Header *header);
  Loss obstacle(Client &from, const Header &header);
  void deliver(Client &from, std::span<char> frame, Header header);
  void dispatch(Client &from, std::span<char> frame, const Header &header,
                const OutputQueue::Tag &tag);

  void watch_stream(Client &from);
  void abandon_stream(Client &from, std::string_view why, bool tell) noexcept;

  void silence(Client &client) noexcept override;
  void end(Client &client, std::string_view why) noexcept;
  void log_end(const Client &client, std::string_view why) const;
  void end_malformed(Client &client, std::string_view why, const Header &header = {});

  EventLoop *loop_;
  const Options options_;
  std::vector<std::unique_ptr<Listener>> listeners_;
  std::unordered_map<uint32_t, std::unique_ptr<Client>> clients_;
  Names names_;
  uint32_t last_id_ = 0;
  uint64_t strangers_ = 0;  // connections from networks that are not served

  std::unordered_map<uint32_t, Handler> handlers_;
  std::vector<std::function<bool(Client &, const Message &)>> rest_handlers_;
  std::vector<GoneHandler> gone_;
  std::vector<RefusedHandler> refused_messages_;

  std::vector<char> read_buffer_;
  std::vector<char> assembled_;  // the frame that the current input completed
  Journal journal_;
  Flow flow_;
  Outbox outbox_;
  Accounts accounts_;
  Gate gate_;
};

}  // namespace msgsvr
