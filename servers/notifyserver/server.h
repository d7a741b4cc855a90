// The notify server's core: connections, module ids, and the routing of messages between them.
//
// One turn of the loop reads what one client has sent, routes every whole message in it, and then
// writes to each destination once. Messages travel untouched: only the head's destination decides.
//
// A failed allocation, or a connection that epoll refuses, ends at most the client that caused it.
// The bytes of unfinished messages are bounded for each user and in all.
#pragma once

#include <sys/types.h>

#include <array>
#include <bitset>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/event_loop.h"
#include "common/listen.h"
#include "common/output_queue.h"
#include "common/unique_fd.h"
#include "msgapi/notify.h"
#include "notifyserver/frame_reader.h"

namespace notifyserver {

struct Statistics {
  uint64_t received = 0;       // whole messages, for any receiver
  uint64_t delivered = 0;      // written to clients that are gone; the living count their own
  uint64_t registered = 0;     // registrations that were accepted
  uint64_t answered = 0;       // synchronous requests to the server itself
  uint64_t unserved = 0;       // messages for the server that it does not serve
  uint64_t no_module = 0;      // lost: nobody has the destination's id
  uint64_t overflows = 0;      // lost: no room in the destination's queue
  uint64_t died_with = 0;      // lost: waited for a client that went away
  uint64_t refused = 0;        // lost: no room for them before they had arrived whole
  uint64_t malformed = 0;      // clients that were disconnected
  uint64_t foreign = 0;        // messages with another source than their sender's module
  uint64_t forged = 0;         // lost: messages that said they came from the server
  uint64_t not_permitted = 0;  // registrations as a module of other users
  uint64_t connections = 0;
};

struct Limits {
  // Room for the longest message and as much again, and for the clients of one user.
  static constexpr size_t kDefault = size_t{2} * (ORP_NOTIFYCLT_MAX_DATA + 4096);

  size_t queue = kDefault;       // bytes that may wait for one client
  size_t unfinished = kDefault;  // bytes of messages of one user's clients that are not whole yet;
                                 // twice as many in all
  size_t connections = 4096;     // of one user
};

// Who may do what. Root may do everything.
struct Rules {
  mode_t mode = 0666;  // of the socket: applications run under users of their own
  // Who else may register as a module; a module that is not here is open to everybody. If the map
  // is not empty, messages carry their sender's module as their source.
  std::map<uint32_t, std::set<uid_t>> owners = {};
};

class Server final : servers::EventLoop::Watch {
 public:
  // Listens at once; throws std::exception when it cannot.
  Server(servers::EventLoop *loop, const std::string &path, const Limits &limits, Rules rules);
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;
  ~Server() override;

  void log_statistics() const;
  // Writes what sockets still take and disconnects everybody.
  void finish();

 private:
  class Client;
  struct User;
  using Route = std::vector<servers::OutputQueue::Frame>;

  void ready(uint32_t events) override;  // somebody connects
  void adopt(servers::UniqueFd fd);
  bool has_too_many(const Client &client);  // connections of one user
  std::shared_ptr<User> user_of(uid_t id);
  void read_from(Client &client);
  void route(Client &from, const Frame &frame);
  void serve(Client &from, const Frame &frame);
  void register_module(Client &client, const Frame &frame);
  bool may_register(const Client &client, uint32_t module) const;
  bool check_source(Client &from, Frame *frame);
  void leave_module(Client &client);
  void queue(Client &to, std::span<const char> bytes);
  void flush_routes();
  void write_route(Client &client);
  void after_writing(Client &client);
  void count_refused(Client &client);
  void give_up(Client &client, const char *why) noexcept;
  void disconnect(Client &client, const char *why) noexcept;
  void report_end(Client &client, const char *why);

  servers::EventLoop &loop_;
  std::string path_;
  std::optional<servers::Acceptor> acceptor_;
  const Limits limits_;
  const Rules rules_;
  Budget unfinished_;                           // of all users
  std::map<uid_t, std::weak_ptr<User>> users_;  // those who have clients
  std::vector<char> input_;                     // what is read of one client in one turn
  std::vector<std::unique_ptr<Client>> clients_;
  // The clients of every module id, oldest registration first; the first gets the messages.
  std::array<std::vector<Client *>, ORP_NOTIFYCLT_MODULES> modules_;
  // Ids whose absence has been logged; 0 stands for all that are out of range.
  std::bitset<ORP_NOTIFYCLT_MODULES> missing_;
  // Destinations of the running turn.
  std::vector<Client *> routed_;
  std::list<NOTIFY_MSG> answers_;
  Statistics statistics_;
};

}  // namespace notifyserver
