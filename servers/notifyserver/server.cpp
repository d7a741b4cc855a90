#include "notifyserver/server.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <utility>

#include "common/log_line.h"
#include "common/peer.h"

namespace notifyserver {
namespace {

using servers::log_line;
using servers::OutputQueue;

constexpr size_t kReadSize = 131072;

const char *name_of(uint32_t module) {
  const char *name = ORP_NOTIFYCLT_GetNameByMID(module);
  return name == nullptr ? "unnamed" : name;
}

}  // namespace

// What the clients of one user have in common.
struct Server::User {
  User(size_t limit, Budget *all) : unfinished(limit, all) {}

  Budget unfinished;     // bytes of messages that are not whole yet
  bool refused = false;  // the log has said that there are too many connections
};

class Server::Client final : public servers::Peer {
 public:
  Client(Server *server, servers::UniqueFd connection)
      : Peer(&server->loop_, std::move(connection), server->limits_.queue),
        user(server->user_of(peer.uid)),
        input(&user->unfinished),
        server_(server) {}

  void ready(uint32_t events) override {
    if ((events & EPOLLOUT) != 0) {
      out.flush();
      server_->after_writing(*this);
      if (gone) return;
    }
    if ((events & ~uint32_t{EPOLLOUT}) != 0) server_->read_from(*this);
  }

  void failed(const char *why) noexcept override { server_->give_up(*this, why); }

  std::string label() const override {
    if (module == 0) return fmt::format("process {}", peer.pid);
    return fmt::format("module {} ({}, process {})", module, name_of(module), peer.pid);
  }

  uint32_t module = 0;  // 0 before registration
  std::shared_ptr<User> user;
  FrameReader input;
  Route route;           // messages of this turn
  uint64_t refused = 0;  // messages of its own, as far as they are counted
  bool foreign = false;  // the log has said that it sends as another module
  bool gone = false;
  Client *next_failed = nullptr;  // in flush_routes()

 private:
  Server *server_;
};

Server::Server(servers::EventLoop *loop, const std::string &path, const Limits &limits, Rules rules)
    : loop_(*loop),
      path_(path),
      acceptor_(servers::listen_unix(path, rules.mode)),
      limits_(limits),
      rules_(std::move(rules)),
      unfinished_(2 * limits.unfinished),
      input_(kReadSize) {
  loop_.add(acceptor_->fd(), EPOLLIN, this);
}

Server::~Server() {
  finish();
  loop_.remove(acceptor_->fd(), this);
  acceptor_.reset();
  servers::remove_unix(path_);
}

void Server::finish() {
  while (!clients_.empty()) {
    clients_.back()->out.flush();
    disconnect(*clients_.back(), "is disconnected: the server ends");
  }
}

void Server::ready(uint32_t) {
  while (servers::UniqueFd fd = acceptor_->accept()) {
    ++statistics_.connections;
    loop_.attempt("a connection is refused", [&] { adopt(std::move(fd)); });
  }
}

void Server::adopt(servers::UniqueFd fd) {
  clients_.push_back(std::make_unique<Client>(this, std::move(fd)));
  Client *const client = clients_.back().get();
  try {
    if (has_too_many(*client)) {
      clients_.pop_back();
    } else {
      client->begin_watch();
    }
  } catch (...) {
    clients_.pop_back();
    throw;
  }
}

bool Server::has_too_many(const Client &client) {
  // Each client holds its user once.
  if (static_cast<size_t>(client.user.use_count()) <= limits_.connections) return false;
  if (!client.user->refused) {
    log_line("user {} has {} connections; more are closed", client.peer.uid, limits_.connections);
  }
  client.user->refused = true;
  return true;
}

std::shared_ptr<Server::User> Server::user_of(uid_t id) {
  std::weak_ptr<User> &entry = users_[id];
  std::shared_ptr<User> user = entry.lock();
  if (user) return user;
  user = std::make_shared<User>(limits_.unfinished, &unfinished_);
  entry = user;
  std::erase_if(users_, [](const auto &each) { return each.second.expired(); });
  return user;
}

void Server::read_from(Client &client) {
  const ssize_t count = ::read(client.fd.get(), input_.data(), input_.size());
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) {
    disconnect(client, client.input.inside_message() ? "left in the middle of a message" : "left");
    return;
  }

  client.input.feed(std::span(input_).first(static_cast<size_t>(count)));
  while (auto frame = client.input.next()) {
    ++statistics_.received;
    if (!check_source(client, &*frame)) continue;
    if (frame->head.des_id == ORP_NOTIFYCLT_SERVER) {
      serve(client, *frame);
    } else {
      route(client, *frame);
    }
  }
  flush_routes();
  if (client.gone) return;
  client.input.release();
  count_refused(client);
  if (client.input.malformed()) {
    ++statistics_.malformed;
    disconnect(client, "is disconnected: it announced more data than a message may have");
  }
}

void Server::count_refused(Client &client) {
  const uint64_t refused = client.input.refused() - client.refused;
  if (refused == 0) return;
  statistics_.received += refused;
  statistics_.refused += refused;
  if (client.refused == 0) {
    log_line(
        "a message of {} is lost: there is no room for it until it is whole ({} bytes of its "
        "user's {} are taken, {} in all)",
        client.label(), client.user->unfinished.used(), limits_.unfinished, unfinished_.used());
  }
  client.refused += refused;
}

void Server::route(Client &from, const Frame &frame) {
  const uint32_t module = frame.head.des_id;
  if (module < modules_.size() && !modules_[module].empty()) {
    queue(*modules_[module].front(), frame.bytes);
    return;
  }
  ++statistics_.no_module;
  const size_t index = module < modules_.size() ? module : 0;
  if (missing_[index]) return;
  missing_[index] = true;
  log_line("a message 0x{:x} of {} is lost: there is no module {} ({})", frame.head.msg_type,
           from.label(), module, name_of(module));
}

// Messages to the server itself.
void Server::serve(Client &from, const Frame &frame) {
  const NOTIFY_MSG &head = frame.head;
  if (head.sync_tag == 0 && head.msg_type == ORP_NOTIFYCLT_REGISTER) {
    register_module(from, frame);
    return;
  }
  if (head.sync_tag == 0 || head.ack_tag != ORP_NOTIFYCLT_REQUEST) {
    ++statistics_.unserved;
    return;
  }

  // The server serves no requests. It answers without data, as a module without a procedure does,
  // so that the requester does not wait in vain.
  ++statistics_.answered;
  NOTIFY_MSG &answer = answers_.emplace_back();
  answer = {};
  answer.msg_type = head.msg_type;
  answer.seq_num = head.seq_num;
  answer.source_id = ORP_NOTIFYCLT_SERVER;
  answer.des_id = head.source_id;
  answer.sync_tag = 1;
  answer.ack_tag = ORP_NOTIFYCLT_REPLY;
  queue(from, {reinterpret_cast<const char *>(&answer), sizeof answer});
}

void Server::register_module(Client &client, const Frame &frame) {
  uint32_t module = 0;
  if (frame.data().size() >= sizeof module) {
    std::memcpy(&module, frame.data().data(), sizeof module);
  }
  if (module == 0 || module >= ORP_NOTIFYCLT_MODULES || module == ORP_NOTIFYCLT_SERVER) {
    ++statistics_.unserved;
    log_line("{} may not be registered as module {}", client.label(), module);
    return;
  }

  if (!may_register(client, module)) {
    ++statistics_.not_permitted;
    log_line("{} of user {} may not be module {}", client.label(), client.peer.uid, module);
    return;
  }

  ++statistics_.registered;
  leave_module(client);
  client.module = module;
  missing_[module] = false;
  modules_[module].push_back(&client);
  log_line("{} is registered", client.label());
}

bool Server::may_register(const Client &client, uint32_t module) const {
  const auto entry = rules_.owners.find(module);
  return entry == rules_.owners.end() || client.peer.uid == 0 ||
         entry->second.contains(client.peer.uid);
}

// False for a message that is not to be passed on.
bool Server::check_source(Client &from, Frame *frame) {
  const uint32_t source = frame->head.source_id;
  const bool registers = frame->head.sync_tag == 0 && frame->head.des_id == ORP_NOTIFYCLT_SERVER &&
                         frame->head.msg_type == ORP_NOTIFYCLT_REGISTER;
  if (source == from.module || registers) return true;
  ++statistics_.foreign;
  if (!std::exchange(from.foreign, true)) {
    log_line("{} of user {} sends as module {}", from.label(), from.peer.uid, source);
  }
  if (source == ORP_NOTIFYCLT_SERVER) {
    ++statistics_.forged;
    return false;
  }
  if (rules_.owners.empty()) return true;
  frame->head.source_id = from.module;
  std::memcpy(frame->bytes.data(), &frame->head, sizeof frame->head);
  return true;
}

void Server::leave_module(Client &client) {
  std::erase(modules_[client.module], &client);
}

void Server::queue(Client &to, std::span<const char> bytes) {
  if (to.route.empty()) routed_.push_back(&to);
  to.route.push_back({bytes.data(), bytes.size(), {}});
}

// Writes what read_from() routed; those messages stay in the sender's buffer until then.
void Server::flush_routes() {
  Client *failed = nullptr;
  while (!routed_.empty()) {
    Client *const client = routed_.back();
    routed_.pop_back();
    if (loop_.attempt("a client cannot be written to", [&] { write_route(*client); })) continue;
    // Part of a message may have been written. The client may be the sender.
    client->out.close();
    client->next_failed = std::exchange(failed, client);
  }
  answers_.clear();
  while (failed != nullptr) {
    disconnect(*std::exchange(failed, failed->next_failed),
               "is disconnected: the server could not go on with it");
  }
}

void Server::write_route(Client &client) {
  std::vector<OutputQueue::Tag> refused;
  client.out.send(std::exchange(client.route, {}), &refused);
  client.lost += refused.size();
  if (client.out.broken()) {
    statistics_.died_with += refused.size();
  } else {
    statistics_.overflows += refused.size();
    client.note_overflow(refused.size());
  }
  after_writing(client);
}

void Server::after_writing(Client &client) {
  // A client that has gone is still read; the end of its stream disconnects it.
  client.update_watch(true);
  if (client.out.empty() && !client.out.broken()) client.note_empty();
}

// Reading from `client` has failed. Its last messages may be routed in part, and are lost.
void Server::give_up(Client &client, const char *why) noexcept {
  loop_.report("a client is given up", why);
  for (Client *const each : routed_) {
    statistics_.refused += std::exchange(each->route, {}).size();
  }
  routed_.clear();
  answers_.clear();
  disconnect(client, "is disconnected: the server could not go on with it");
}

void Server::disconnect(Client &client, const char *why) noexcept {
  loop_.attempt("the end of a client is not counted", [&] { report_end(client, why); });
  client.gone = true;
  client.input.reset();
  client.user.reset();
  leave_module(client);
  client.end_watch();
  const auto place = std::find_if(clients_.begin(), clients_.end(),
                                  [&](const auto &each) { return each.get() == &client; });
  assert(place != clients_.end());
  loop_.retire(std::move(*place));
  clients_.erase(place);
}

void Server::report_end(Client &client, const char *why) {
  statistics_.delivered += client.out.frames_written();
  const uint64_t unwritten = client.out.take_unwritten().size();
  statistics_.died_with += unwritten;
  client.lost += unwritten;
  std::string losses;
  if (client.lost != 0) losses += fmt::format("; {} messages for it were lost", client.lost);
  if (client.refused != 0) losses += fmt::format("; {} of its messages were lost", client.refused);
  log_line("{} {}{}", client.label(), why, losses);
}

void Server::log_statistics() const {
  uint64_t delivered = statistics_.delivered;
  for (const auto &client : clients_) {
    delivered += client->out.frames_written();
    log_line("{}: {} messages delivered, {} lost, {} bytes waiting", client->label(),
             client->out.frames_written(), client->lost, client->out.weight());
  }
  log_line(
      "received {} delivered {} registered {} answered {} unserved {} no_module {} overflows {} "
      "died_with {} refused {} malformed {} connections {} clients {} "
      "foreign {} forged {} not_permitted {}",
      statistics_.received, delivered, statistics_.registered, statistics_.answered,
      statistics_.unserved, statistics_.no_module, statistics_.overflows, statistics_.died_with,
      statistics_.refused, statistics_.malformed, statistics_.connections, clients_.size(),
      statistics_.foreign, statistics_.forged, statistics_.not_permitted);
}

}  // namespace notifyserver
