// Connections: how they begin and end, and what the services see of them.

#include "msgsvr/server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <utility>

#include "common/log_line.h"

namespace msgsvr {
namespace {

using servers::log_line;

// The most that one read takes, in bytes and as a part of a queue. A message weighs up to 2.6 times
// its bytes in a queue. When senders are held, what one read has brought must still fit into the
// rest of the queue and its reserve.
constexpr size_t kReadSize = 131072;
constexpr size_t kReadsInQueue = 3;

// Bounded, so that a burst of connections does not keep connected clients waiting.
constexpr int kMostAccepted = 64;

// A board that vanished is noticed after about a minute.
void prepare_tcp(int fd) {
  const auto set = [fd](int level, int option, int value) {
    ::setsockopt(fd, level, option, &value, sizeof value);
  };
  set(IPPROTO_TCP, TCP_NODELAY, 1);
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPIDLE, 30);
  set(IPPROTO_TCP, TCP_KEEPINTVL, 10);
  set(IPPROTO_TCP, TCP_KEEPCNT, 3);
}

std::string user_name(const Client &client) {
  // All processes of one board share an address.
  if (!client.address.empty()) {
    return "board " + client.address.substr(0, client.address.rfind(':'));
  }
  return fmt::format("user {}", static_cast<int64_t>(static_cast<int32_t>(client.peer.uid)));
}

}  // namespace

Client::Client(Server *server_in, uint32_t id_in, UniqueFd fd_in, size_t queue_limit)
    : Peer(&server_in->loop(), std::move(fd_in), queue_limit, this),
      server(server_in),
      id(id_in),
      address(servers::peer_address(fd.get())) {}

void Client::ready(uint32_t events) {
  if ((events & EPOLLOUT) != 0) server->writable(*this);
  // A client that has hung up is read to its end even if its input should rest: little is left, and
  // the kernel would report the hang-up for ever.
  const bool hung_up = (events & (EPOLLHUP | EPOLLERR)) != 0;
  if (!ended && (hung_up || ((events & EPOLLIN) != 0 && holds == 0))) server->readable(*this);
}

void Client::failed(const char *why) noexcept {
  server->fail(*this, why);
}

void Client::wrote() noexcept {
  server->journal().tick();
}

void Client::written(const OutputQueue::Tag &tag) noexcept {
  if (!tag.descriptor) server->journal().delivered(*this, tag);
}

void Client::descriptor_passed(const OutputQueue::Tag &tag) noexcept {
  server->journal().descriptor_passed(*this, tag);
}

void Client::descriptor_dropped(const OutputQueue::Tag &tag) noexcept {
  const Client *from = server->by_id(tag.origin);
  server->journal().lost(Loss::kDescriptor, tag, from == nullptr ? Party{} : party_of(*from), this,
                         name);
  server->journal().told(false);
}

std::string Client::label() const {
  const std::string_view known = name.empty() ? std::string_view("(no name)") : name.text();
  return address.empty() ? fmt::format("{}[{}]", known, peer.pid)
                         : fmt::format("{}[{}]", known, address);
}

struct Server::Listener final : EventLoop::Watch {
  Listener(Server *server_in, UniqueFd fd) : server(server_in), acceptor(std::move(fd)) {}
  void ready(uint32_t) override {
    for (int i = 0; i < kMostAccepted; ++i) {
      UniqueFd fd = acceptor.accept();
      if (!fd) return;
      server->adopt(std::move(fd));
    }
  }

  Server *server;
  servers::Acceptor acceptor;
};

Server::Server(EventLoop *loop, const Options &options)
    : loop_(loop),
      options_(options),
      read_buffer_(std::min(kReadSize, options.queue_limit / kReadsInQueue)),
      flow_(this, loop, &journal_, std::chrono::milliseconds(options.patience_ms)),
      outbox_(this, loop, &journal_, &flow_),
      accounts_(options.limits, &journal_),
      gate_(::getegid(), &journal_) {}

Server::~Server() {
  shut_down();
}

void Server::listen(UniqueFd listener) {
  Listener &added = *listeners_.emplace_back(std::make_unique<Listener>(this, std::move(listener)));
  loop_->add(added.acceptor.fd(), EPOLLIN, &added);
}

Client *Server::adopt(UniqueFd fd) noexcept {
  const uint32_t id = last_id_ + 1;
  if (!loop_->attempt("a connection is given up", [&] { take_in(std::move(fd)); })) {
    journal_.failure();
    clients_.erase(id);
  }
  return by_id(id);
}

void Server::take_in(UniqueFd fd) {
  const uint32_t id = ++last_id_;
  auto owner = std::make_unique<Client>(this, id, std::move(fd), options_.queue_limit);
  Client &client = *owner;
  // Its TCP peer has gone already, and its address is no longer known.
  if (client.address.empty() && !servers::local_address(client.fd.get()).empty()) return;
  client.account = accounts_.open(user_name(client));
  if (!is_served(client)) return;
  client.connection = Share(client.account, Kept::kConnections);
  client.in.partial_share = Share(client.account, Kept::kUnfinished);
  if (!client.connection.grow(options_.limits)) {
    accounts_.note_refusal(*client.account, "connections");
    return;
  }
  if (!client.address.empty()) prepare_tcp(client.fd.get());
  clients_.emplace(id, std::move(owner));
  client.begin_watch();
  journal_.connected(client);
}

// Over TCP only boards of listed networks are served.
bool Server::is_served(const Client &client) {
  if (client.address.empty() || options_.tcp_from.empty()) return true;
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  const bool known =
      ::getpeername(client.fd.get(), reinterpret_cast<sockaddr *>(&address), &size) == 0;
  if (known && std::ranges::any_of(options_.tcp_from, [&](const servers::Network &network) {
        return network.contains(address);
      })) {
    return true;
  }
  journal_.refused();
  const uint64_t times = ++strangers_;
  if ((times & (times - 1)) == 0) {
    log_line("{} is of no network that is served (--tcp-from), {} connections so far",
             client.address, times);
  }
  return false;
}

void Server::refuse(Client &client, const Message &request, std::string_view what) {
  accounts_.note_refusal(*client.account, fmt::format("{} (now {})", what, client.label()));
  outbox_.lose(client, request, Loss::kNotPermitted);
}

void Server::serve(uint32_t type, Handler handler) {
  handlers_[type] = std::move(handler);
}

void Server::serve_rest(std::function<bool(Client &, const Message &)> handler) {
  rest_handlers_.push_back(std::move(handler));
}

Client *Server::by_id(uint32_t id) {
  const auto entry = clients_.find(id);
  return entry == clients_.end() ? nullptr : entry->second.get();
}

bool Server::disconnect(uint32_t id, std::string_view why) noexcept {
  Client *client = by_id(id);
  if (client == nullptr) return false;
  end(*client, why);
  outbox_.flush();
  return true;
}

void Server::update_interest(Client &client) noexcept {
  if (client.ended) return;
  const bool watched = loop_->attempt("a connection cannot be watched",
                                      [&] { client.update_watch(client.holds == 0); });
  if (watched) return;
  journal_.failure();
  end(client, "it cannot be watched");
}

void Server::writable(Client &to) {
  to.out.flush();
  outbox_.after_output(to);
  outbox_.flush();
}

// Nothing more is sent to the client. Its input is still read: it may have sent messages and then
// closed with unread ones.
void Server::silence(Client &client) noexcept {
  names_.release(client);
  client.out.close();
  flow_.release_all(client);
  for (const auto &[id, other] : clients_) {
    if (other->in.stream_to == &client) abandon_stream(*other, "its reader is gone", true);
  }
  client.out.take_unwritten([&](const OutputQueue::Tag &tag, std::span<const char> frame) {
    outbox_.undelivered(client, tag, frame, Loss::kReceiverGone);
  });
}

void Server::end(Client &client, std::string_view why) noexcept {
  if (client.ended) return;
  // Its end may cause messages for itself. From here on these neither use its descriptor in epoll
  // nor end it once more.
  client.ended = true;
  client.end_watch();
  loop_->attempt("the end of a client is not logged", [&] { log_end(client, why); });
  if (client.in.stream != nullptr) abandon_stream(client, "its sender is gone", false);
  silence(client);
  journal_.ended(client, why);
  const auto entry = clients_.find(client.id);
  assert(entry != clients_.end() && client.in.stream == nullptr && client.backlog.held.empty());
  std::unique_ptr<Client> owner = std::move(entry->second);
  clients_.erase(entry);
  for (const GoneHandler &handler : gone_) {
    loop_->attempt("a service keeps what a client that is gone had", [&] { handler(client); });
  }
  loop_->retire(std::move(owner));
}

void Server::log_end(const Client &client, std::string_view why) const {
  const std::string label = client.label();
  const std::string lost =
      client.lost == 0 ? "" : fmt::format(", {} messages for it were lost", client.lost);
  if (!why.empty()) {
    log_line("{} is disconnected: {}{}", label, why, lost);
  } else if (!client.in.between_frames()) {
    log_line("{} left in the middle of a message{}", label, lost);
  } else if (!lost.empty()) {
    log_line("{} left{}", label, lost);
  }
}

// Handling its input has thrown. Sends what is ready, and ends the client.
void Server::fail(Client &client, const char *why) noexcept {
  journal_.failure();
  flow_.end_routing();
  outbox_.flush();
  end(client, why);
  outbox_.flush();
}

void Server::end_malformed(Client &client, std::string_view why, const Header &header) {
  OutputQueue::Tag tag;
  tag.origin = client.id;
  tag.type = header.ulMsgType & ORP_MSG_TYPE_MASK;
  tag.sequence = header.ulSeqNum;
  journal_.lost(Loss::kMalformed, tag, party_of(client), nullptr, {});
  end(client, why);
}

std::vector<std::string> Server::statistics() const {
  const Statistics &s = journal_.statistics();
  uint64_t frames_out = s.frames_out;
  uint64_t bytes_out = s.bytes_out;
  std::vector<std::string> lines(1);
  for (const auto &[id, client] : clients_) {
    frames_out += client->out.frames_written();
    bytes_out += client->out.bytes_written();
    lines.push_back(fmt::format(
        "client {}: in {} messages, {} bytes; out {} messages, {} bytes; queued {} bytes; lost {}",
        client->label(), client->frames_in, client->bytes_in, client->out.frames_written(),
        client->out.bytes_written(), client->out.weight(), client->lost));
  }
  lines.front() = fmt::format(
      "{} clients of {} connections; in {} messages, {} bytes; out {} messages, {} bytes; no such "
      "name {}; queue full {}; receiver died {}; cut short {}; senders told {}; nobody told {}; "
      "not served {}; not permitted {}; descriptors passed {}, refused {}; malformed {}; over a "
      "limit {}; given up {}; refused by the policy {}; foreign senders {}; refused by HTTP {}",
      clients_.size(), s.connections, s.frames_in, s.bytes_in, frames_out, bytes_out,
      s.of(Loss::kNoSuchName), s.of(Loss::kQueueFull), s.of(Loss::kReceiverGone),
      s.of(Loss::kCutShort), s.told, s.untold, s.of(Loss::kNotServed), s.of(Loss::kNotPermitted),
      s.descriptors_passed, s.of(Loss::kDescriptor), s.of(Loss::kMalformed), s.over_limit,
      s.failures, s.refused, s.foreign, journal_.http_refused());
  return lines;
}

void Server::shut_down() {
  for (const auto &listener : listeners_) loop_->remove(listener->acceptor.fd(), listener.get());
  listeners_.clear();
  outbox_.flush();
  for (const auto &[id, client] : clients_) {
    client->out.flush();
    client->end_watch();
    journal_.ended(*client, "the server ends");
  }
  // From here on nobody is told that a client has gone.
  clients_.clear();
  names_.clear();
}

}  // namespace msgsvr
