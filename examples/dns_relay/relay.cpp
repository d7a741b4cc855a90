#include "relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <stdexcept>
#include <system_error>

namespace dns_relay {
namespace {

// RFC 1035 section 4.2.1; nothing larger is asked for, as EDNS is not passed on.
constexpr size_t kMaxMessageSize = 4096;
constexpr size_t kMaxPending = 256;
// One wake-up serves so many messages, so that no socket starves the others.
constexpr int kMaxBatch = 32;
constexpr uint16_t kDnsPort = 53;

// Connections of clients; each of them, and each of its queries, may take a descriptor.
constexpr size_t kMaxStreams = 64;
// RFC 7766 section 6.2.3: a few seconds.
constexpr uint32_t kIdle_ms = 10000;

int open_socket(const Address &address, int type = SOCK_DGRAM) {
  const int fd = ::socket(address.storage.ss_family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "socket");
  return fd;
}

// The next message, or nothing; errno says why.
Packet receive(int fd, Address *sender) {
  std::array<uint8_t, kMaxMessageSize> buffer;
  sender->size = sizeof sender->storage;
  const ssize_t size =
      ::recvfrom(fd, buffer.data(), buffer.size(), 0, sender->get(), &sender->size);
  if (size < 0) return nullptr;
  return make_packet({buffer.data(), static_cast<size_t>(size)});
}

Packet error_reply(const Packet &query, ResponseCode code) {
  Packet packet(ORP_DNS_PacketBuildErrorResponse(query.get(), static_cast<uint32_t>(code)));
  // A reply repeats the query's operation, which the builder takes for a standard query's.
  if (packet) {
    set_field(packet, Field::kFlags,
              static_cast<uint16_t>(field(packet, Field::kFlags) | operation_of(query)));
  }
  return packet;
}

}  // namespace

Address Address::parse(const std::string &text, uint16_t default_port) {
  const std::string host = text.substr(0, text.find('#'));
  uint16_t port = default_port;
  if (host.size() < text.size()) {
    const char *const begin = text.data() + host.size() + 1, *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(begin, end, port);
    if (error != std::errc() || stop != end) throw std::runtime_error("bad port in " + text);
  }

  Address address;
  auto *const ipv4 = reinterpret_cast<sockaddr_in *>(&address.storage);
  auto *const ipv6 = reinterpret_cast<sockaddr_in6 *>(&address.storage);
  if (::inet_pton(AF_INET, host.c_str(), &ipv4->sin_addr) == 1) {
    ipv4->sin_family = AF_INET;
    ipv4->sin_port = htons(port);
    address.size = sizeof *ipv4;
  } else if (::inet_pton(AF_INET6, host.c_str(), &ipv6->sin6_addr) == 1) {
    ipv6->sin6_family = AF_INET6;
    ipv6->sin6_port = htons(port);
    address.size = sizeof *ipv6;
  } else {
    throw std::runtime_error("bad address " + text);
  }
  return address;
}

void watch(int fd, ORP_UV_IO_PROC callback, void *data) {
  auto *watcher = static_cast<OrpUvIo *>(std::malloc(sizeof(OrpUvIo)));
  if (watcher == nullptr || OrpUvIoInit(nullptr, watcher, fd, callback) != ORP_OK) {
    throw std::runtime_error("cannot watch a descriptor");
  }
  watcher->head.data = reinterpret_cast<ORP_WORD>(data);
  if (OrpUvIoStart(watcher, ORP_UV_READABLE) != ORP_OK) {
    throw std::runtime_error("cannot watch a descriptor");
  }
}

Relay::Relay(const Settings &settings) : settings_(settings), cache_(settings.cache_size) {
  reload_hosts();

  const Address listen = Address::parse(settings_.listen, kDnsPort);
  server_ = open_socket(listen);
  if (::bind(server_, listen.get(), listen.size) != 0) {
    throw std::system_error(errno, std::generic_category(), "bind to " + settings_.listen);
  }
  watch(
      server_,
      [](OrpUvIo *watcher, uint32_t) {
        reinterpret_cast<Relay *>(watcher->head.data)->receive_queries();
      },
      this);

  listener_ = open_socket(listen, SOCK_STREAM);
  const int on = 1;
  ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (::bind(listener_, listen.get(), listen.size) != 0 || ::listen(listener_, SOMAXCONN) != 0) {
    throw std::system_error(errno, std::generic_category(), "listen on " + settings_.listen);
  }
  watch(
      listener_,
      [](OrpUvIo *watcher, uint32_t) {
        reinterpret_cast<Relay *>(watcher->head.data)->accept_clients();
      },
      this);

  for (const std::string &text : settings_.upstreams) {
    const Address upstream = Address::parse(text, kDnsPort);
    upstream_addresses_.push_back(upstream);
    const int fd = open_socket(upstream);
    // Connected, the socket takes messages from this server only.
    if (::connect(fd, upstream.get(), upstream.size) != 0) {
      throw std::system_error(errno, std::generic_category(), "connect to " + text);
    }
    watch(
        fd,
        [](OrpUvIo *watcher, uint32_t) {
          reinterpret_cast<Relay *>(watcher->head.data)->receive_replies(watcher->fd);
        },
        this);
    upstreams_.push_back(fd);
  }
}

void Relay::reload_hosts() {
  if (!settings_.hosts.empty()) hosts_ = Hosts(settings_.hosts);
}

void Relay::accept_clients() {
  const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) return;
  if (streams_.size() >= kMaxStreams) {
    ::close(fd);
    return;
  }
  streams_.emplace(++last_stream_, std::make_unique<Stream>(fd, kIdle_ms, this));
}

void Relay::received(Stream *stream, Packet message) {
  for (const auto &[id, client] : streams_) {
    if (client.get() == stream) {
      handle_query(std::move(message), {{}, id});
      return;
    }
  }
  Pending *const pending = asked_over(stream);
  if (pending != nullptr && message->ulLength >= kHeaderSize && is_reply(message) &&
      field(message, Field::kIdentifier) == pending->id &&
      question_of(message) == pending->question) {
    answer(pending, message);
  }
}

// Of an upstream's connection: the time-out goes on to the next server.
void Relay::ended(Stream *stream) {
  if (std::erase_if(streams_, [&](const auto &each) { return each.second.get() == stream; }) > 0) {
    return;
  }
  if (Pending *const pending = asked_over(stream)) pending->connection.reset();
}

Relay::Pending *Relay::asked_over(const Stream *stream) {
  for (const auto &[id, pending] : pending_) {
    if (pending->connection.get() == stream) return pending.get();
  }
  return nullptr;
}

void Relay::receive_queries() {
  for (int i = 0; i < kMaxBatch; ++i) {
    Client client;
    Packet query = receive(server_, &client.address);
    if (!query) return;
    handle_query(std::move(query), client);
  }
}

void Relay::receive_replies(int fd) {
  for (int i = 0; i < kMaxBatch; ++i) {
    Address ignored;
    const Packet reply = receive(fd, &ignored);
    // Time-outs deal with a server that is not there.
    if (!reply) return;
    handle_reply(reply, fd);
  }
}

void Relay::handle_query(Packet query, const Client &client) {
  // Without a header there is nothing to answer, and answering replies would make loops.
  if (query->ulLength < kHeaderSize || is_reply(query)) return;
  if (operation_of(query) != 0) {
    reply(error_reply(query, ResponseCode::kNotImplemented), client);
    return;
  }
  const std::optional<Question> question = question_of(query);
  if (!question) {
    reply(error_reply(query, ResponseCode::kFormatError), client);
    return;
  }

  Packet bare = question_only(query);
  const Packet answer = local_answer(*question, bare);
  if (answer) {
    reply(answer, client);
  } else if (upstreams_.empty()) {
    reply(error_reply(bare, ResponseCode::kRefused), client);
  } else if (pending_.size() >= kMaxPending) {
    reply(error_reply(bare, ResponseCode::kServerFailure), client);
  } else {
    pass_on(*question, std::move(bare), client);
  }
}

Packet Relay::local_answer(const Question &question, const Packet &query) {
  if (const std::string *data = hosts_.find(question)) {
    const ORP_DNS_RR_ST record = {"",
                                  question.type,
                                  question.klass,
                                  settings_.hosts_ttl_s,
                                  static_cast<uint32_t>(data->size()),
                                  reinterpret_cast<const uint8_t *>(data->data())};
    return Packet(ORP_DNS_PacketBuildResponse(query.get(), &record, 0));
  }
  // The host exists, but has no address of this family.
  if (hosts_.knows(question.name)) return Packet(ORP_DNS_IpTypeMismatchResponse(query.get()));
  return cache_.answer(question, query);
}

uint16_t Relay::unused_id() const {
  // Unforeseeable, so that nobody off the path can forge a reply (RFC 5452).
  for (;;) {
    uint16_t id;
    if (::getrandom(&id, sizeof id, 0) != sizeof id) continue;
    if (!pending_.contains(id)) return id;
  }
}

void Relay::pass_on(const Question &question, Packet query, const Client &client) {
  const uint16_t id = unused_id();
  const uint16_t client_id = field(query, Field::kIdentifier);
  set_field(query, Field::kIdentifier, id);
  auto pending = std::make_unique<Pending>(
      Pending{client, client_id, question, std::move(query), 0, nullptr, this, id, nullptr});
  // One time-out for each server that may be asked.
  pending->timer = ORP_TIMER_AddWithName(
      settings_.timeout_ms, static_cast<uint32_t>(upstreams_.size()),
      [](ORP_WORD data) {
        auto *const late = reinterpret_cast<Pending *>(data);
        late->relay->try_next_upstream(late);
      },
      "dns_relay", reinterpret_cast<ORP_WORD>(pending.get()));
  if (pending->timer == nullptr) return;
  send_upstream(pending.get());
  pending_.emplace(id, std::move(pending));
}

void Relay::send_upstream(Pending *pending) {
  const std::span<const uint8_t> message = message_of(pending->query);
  // What cannot be sent counts as lost, as the network may lose it anyway.
  (void)::send(upstreams_[pending->upstream], message.data(), message.size(), 0);
}

// To the server that the query went to last. Without success the time-out goes on to the next.
void Relay::connect_upstream(Pending *pending) {
  const Address &address = upstream_addresses_[pending->upstream];
  const int fd = ::socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return;
  if (::connect(fd, address.get(), address.size) != 0 && errno != EINPROGRESS) {
    ::close(fd);
    return;
  }
  pending->connection = std::make_unique<Stream>(fd, kIdle_ms, this);
  pending->connection->send(pending->query);
}

// Called by the timer, which ends by itself when every server has been asked.
void Relay::try_next_upstream(Pending *pending) {
  pending->connection.reset();
  if (++pending->upstream < upstreams_.size()) {
    send_upstream(pending);
    return;
  }
  set_field(pending->query, Field::kIdentifier, pending->client_id);
  reply(error_reply(pending->query, ResponseCode::kServerFailure), pending->client);
  pending_.erase(pending->id);
}

void Relay::handle_reply(const Packet &packet, int fd) {
  if (packet->ulLength < kHeaderSize || !is_reply(packet)) return;
  const auto found = pending_.find(field(packet, Field::kIdentifier));
  if (found == pending_.end()) return;
  Pending &pending = *found->second;
  // A reply counts only from a server that was asked, and to the question it was asked.
  const auto asked = upstreams_.begin() + static_cast<ptrdiff_t>(pending.upstream) + 1;
  if (std::find(upstreams_.begin(), asked, fd) == asked) return;
  if (question_of(packet) != pending.question) return;

  // Who asked over a connection has room for all of it.
  if (is_cut_short(packet) && pending.client.stream != 0) {
    if (!pending.connection) connect_upstream(&pending);
    return;
  }
  answer(&pending, packet);
}

void Relay::answer(Pending *pending, const Packet &packet) {
  cache_.store(pending->question, packet);
  set_field(packet, Field::kIdentifier, pending->client_id);
  reply(packet, pending->client);
  OrpUtilTimerDel(pending->timer);
  const uint16_t id = pending->id;
  pending_.erase(id);
}

void Relay::reply(const Packet &packet, const Client &client) {
  if (!packet) return;  // out of memory: the client asks again
  set_recursion_available(packet);
  if (client.stream != 0) {
    const auto stream = streams_.find(client.stream);
    if (stream != streams_.end()) stream->second->send(packet);
    return;
  }
  const std::span<const uint8_t> message = message_of(packet);
  (void)::sendto(server_, message.data(), message.size(), 0, client.address.get(),
                 client.address.size);
}

}  // namespace dns_relay
