// Input from clients: cutting it into frames and routing them.
//
// A frame that is not whole when its beginning arrives is kept if it is short. A longer one is
// passed on as it arrives (cut-through). Its header and the first bytes of its body open a stream
// in the receiver's queue. All later frames for that receiver wait until the stream has ended.
// Whatever happens to the sender, the receiver gets exactly the announced number of bytes.

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "catalogue/message_types.h"
#include "common/log_line.h"
#include "msgsvr/hand_over.h"
#include "msgsvr/server.h"

namespace msgsvr {
namespace {

using servers::log_line;

// The longest body that the server itself takes. Applications are not given longer ones, either.
constexpr size_t kLongestServerBody = ORP_MSG_MAX_DISPATCHED_BODY;

// So many bytes of an unfinished message are kept for everybody without being counted. So a message
// that merely arrived in two pieces is never refused.
constexpr size_t kUncounted = 4096;

// A client without a name has nothing to say but its registration, which is never longer.
constexpr size_t kLongestOfNobody = 65536;

// When so many frames wait, they are written before the rest of a read is routed: one event may be
// for many subscribers.
constexpr size_t kMostPosted = 8192;

// The bytes that a sender must bring between two checks while its message is passed on.
constexpr uint64_t kStreamProgress = 32768;

// True if descriptors came with the bytes. All are taken over; only a single one is kept.
bool take_descriptor(msghdr *message, UniqueFd *fd) {
  bool came = (message->msg_flags & MSG_CTRUNC) != 0;
  bool single = !came;
  for (cmsghdr *header = CMSG_FIRSTHDR(message); header != nullptr;
       header = CMSG_NXTHDR(message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    came = true;
    for (size_t at = CMSG_LEN(0); at + sizeof(int) <= header->cmsg_len; at += sizeof(int)) {
      int received;
      std::memcpy(&received, reinterpret_cast<char *>(header) + at, sizeof received);
      UniqueFd owner(received);
      if (*fd) single = false;
      if (single) *fd = std::move(owner);
    }
  }
  if (!single) fd->reset();
  return came;
}

// With the number `record` of the journal.
OutputQueue::Tag tag_of(const Client &from, const Header &header, uint64_t record) {
  OutputQueue::Tag tag;
  tag.origin = from.id;
  tag.type = header.ulMsgType & ORP_MSG_TYPE_MASK;
  tag.sequence = header.ulSeqNum;
  tag.file_key = from.peer.uid;
  tag.record = record;
  return tag;
}

// Whether only the server may send this. Applications know the notice of an undelivered message by
// its type alone, whoever sent it. `strict`: nobody else may send anything in the server's name.
bool is_forged(const Header &header, bool strict, bool to_server) {
  const uint32_t type = header.ulMsgType & ORP_MSG_TYPE_MASK;
  if (type == ORP_MSG_UNDELIVERABLE) return true;
  if (to_server) return false;
  return (strict || type == ORP_MSG_EXIT) &&
         AppName(std::string_view(header.aucSendApp)).is_server();
}

uint32_t receiver_of(const Route &route) {
  return route.to == nullptr ? 0 : route.to->id;
}

}  // namespace

void Server::readable(Client &from) {
  iovec piece{read_buffer_.data(), read_buffer_.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control;
  msghdr message{};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  const ssize_t result = ::recvmsg(from.fd.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (result <= 0) {
    if (result < 0 && (errno == EAGAIN || errno == EINTR)) return;
    // A client that closes with unread messages shows as a reset.
    end(from, result == 0 || errno == ECONNRESET ? "" : std::strerror(errno));
    outbox_.flush();
    return;
  }

  const std::span<char> bytes(read_buffer_.data(), static_cast<size_t>(result));
  journal_.received(from, bytes.size());
  flow_.begin_routing(from);
  UniqueFd fd;
  if (take_descriptor(&message, &fd)) {
    take_with_descriptor(from, bytes, bytes.size() == read_buffer_.size(), std::move(fd));
  } else {
    take(from, bytes);
  }
  outbox_.flush();
  flow_.end_routing();
}

// On a Unix socket a read ends with the write that carried a descriptor (unix(7), SCM_RIGHTS). The
// two zero bytes of the transfer are therefore the last of `bytes`. If the buffer is `full`, only
// the first of them may be there.
void Server::take_with_descriptor(Client &from, std::span<char> bytes, bool full, UniqueFd fd) {
  const size_t before = bytes.size() < 2 ? 0 : bytes.size() - 2;
  take(from, bytes.first(before));
  outbox_.flush();
  std::span<char> rest = bytes.subspan(before);
  if (!from.ended && !from.in.between_frames() && full) {
    take(from, rest.first(1));
    outbox_.flush();
    rest = rest.subspan(1);
  }
  if (from.ended) return;
  const bool zeros = std::all_of(rest.begin(), rest.end(), [](char c) { return c == 0; });
  if (!from.in.between_frames() || !zeros || rest.empty() || (rest.size() == 1 && !full)) {
    journal_.lost(Loss::kDescriptor, tag_of(from, {}, 0), party_of(from), nullptr, {});
    end_malformed(from, "it sent a descriptor inside a message");
    return;
  }
  from.in.owes_zero = rest.size() == 1;
  pass_descriptor(from, std::move(fd));
}

// The peers have agreed on a descriptor by a message, so it goes where the sender's last message
// went.
void Server::pass_descriptor(Client &from, UniqueFd fd) {
  Client *to = from.in.last_to == 0 ? nullptr : by_id(from.in.last_to);
  OutputQueue::Tag tag = from.in.last_tag;
  tag.descriptor = 1;
  if (fd && to != nullptr && to->address.empty() &&
      to->out.descriptors() < options_.limits[static_cast<size_t>(Kept::kDescriptors)] / 4) {
    Share place = accounts_.share(from.account, Kept::kDescriptors);
    if (!place) {
      accounts_.note_refusal(*from.account, "descriptors on their way");
    } else if (to->out.send_descriptor(std::move(fd), tag, Flow::reserve_of(*to),
                                       std::make_shared<Share>(std::move(place)))) {
      outbox_.after_output(*to);
      return;
    }
  }
  journal_.lost(Loss::kDescriptor, tag, party_of(from), nullptr,
                to == nullptr ? AppName() : to->name);
  log_line("a descriptor of {} is closed: {} cannot be given it", from.label(),
           to == nullptr ? "nobody" : to->label());
  outbox_.notify_undeliverable(from, tag);
}

void Server::take(Client &from, std::span<char> bytes) {
  while (!bytes.empty() && !from.ended) {
    if (from.in.owes_zero) {
      from.in.owes_zero = false;
      if (bytes[0] != 0) return end_malformed(from, "it sent a descriptor inside a message");
      bytes = bytes.subspan(1);
    } else if (from.in.left > 0) {
      bytes = pass_on(from, bytes);
    } else if (!from.in.partial.empty() || bytes.size() < kHeaderSize) {
      bytes = assemble(from, bytes);
    } else {
      const Header header = load_header(bytes.data(), from.swapped);
      const Route *route = resolve(from, header);
      if (route == nullptr) return;
      const size_t size = kHeaderSize + header.ulDataLen;
      if (bytes.size() < size) {
        begin_frame(from, bytes, header, *route);
        return;
      }
      deliver(from, bytes.first(size), header);
      bytes = bytes.subspan(size);
      if (outbox_.posted() > kMostPosted) outbox_.flush();
    }
  }
}

std::span<char> Server::pass_on(Client &from, std::span<char> bytes) {
  Inbound &in = from.in;
  const size_t count = static_cast<size_t>(std::min<uint64_t>(in.left, bytes.size()));
  in.left -= count;
  if (in.stream != nullptr) {
    assert(in.stream_to != nullptr);
    Client &to = *in.stream_to;
    to.out.extend(in.stream, bytes.first(count));
    if (in.left == 0) {
      in.stream = nullptr;
      in.stream_to = nullptr;
      loop_->cancel(in.stream_timer);
    } else if (to.backlog.slow && to.out.weight() > to.out.limit() && !Flow::is_owed(to, from)) {
      abandon_stream(from, "its reader does not read", true);
    }
    outbox_.after_output(to);
  }
  return bytes.subspan(count);
}

// Adds to the frame that is being kept. Returns the bytes that are left once the frame, or its
// header, is whole.
std::span<char> Server::assemble(Client &from, std::span<char> bytes) {
  std::vector<char> &partial = from.in.partial;
  const bool in_header = partial.size() < kHeaderSize;
  assert(in_header || partial.size() < from.in.partial_size);
  const size_t wanted = (in_header ? kHeaderSize : from.in.partial_size) - partial.size();
  const size_t count = std::min(wanted, bytes.size());
  if (!in_header && !admit_unfinished(from, partial.size() + count)) {
    const std::vector<char> begin = std::exchange(partial, {});
    from.in.left = from.in.partial_size - begin.size();
    const Header header = load_header(begin.data(), from.swapped);
    if (const Route *route = resolve(from, header)) discard_rest(from, begin, header, *route);
    return bytes;
  }
  partial.insert(partial.end(), bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count));
  bytes = bytes.subspan(count);
  if (count < wanted) return bytes;

  const Header header = load_header(partial.data(), from.swapped);
  const Route *route = resolve(from, header);
  if (route == nullptr) return {};
  // The bytes must outlive this call, and `partial` be free for the next beginning.
  std::swap(partial, assembled_);
  partial.clear();
  if (partial.capacity() > kUncounted) partial = {};
  from.in.partial_share = Share(from.account, Kept::kUnfinished);
  if (in_header && header.ulDataLen > 0) {
    begin_frame(from, assembled_, header, *route);
  } else {
    deliver(from, assembled_, header);
  }
  return bytes;
}

// The header and perhaps a part of the body are there. Decides what becomes of the rest.
void Server::begin_frame(Client &from, std::span<char> begin, Header header, const Route &route) {
  const size_t size = kHeaderSize + header.ulDataLen;
  const size_t kept = route.to_server ? kHeaderSize + kLongestServerBody : options_.cut_through;
  if (size <= kept) {
    const bool too_long = route.to_server && from.name.empty() && size > kLongestOfNobody;
    if (too_long || !admit_unfinished(from, begin.size())) {
      from.in.left = size - begin.size();
      discard_rest(from, begin, header, route);
      return;
    }
    from.in.partial.assign(begin.begin(), begin.end());
    from.in.partial_size = size;
    return;
  }

  if (route.foreign) check_sender(from, begin, &header);
  const uint64_t record =
      journal_.accepted(from, receiver_of(route), header, begin.subspan(kHeaderSize));
  from.in.left = size - begin.size();
  from.in.last_to = 0;
  from.in.last_tag = tag_of(from, header, record);
  Loss loss = obstacle(from, header);
  // A path is never so long, so nobody would check whose file it names.
  if (loss == Loss::kNone && !route.to_server &&
      (header.ulMsgType & ORP_MSG_TYPE_BODY_IN_FILE) != 0) {
    gate_.refuse(from, Gate::Fault::kForeignFile, "names a hand-over file in a long message");
    loss = Loss::kNotPermitted;
  }
  if (loss == Loss::kNone && !route.to_server) {
    begin_stream(from, *route.to, begin, header);
    return;
  }
  if (loss == Loss::kNone) {
    loss = Loss::kNotServed;
    log_line("{} sent the server a message of {} bytes, which is too long", from.label(), size);
    for (const RefusedHandler &handler : refused_messages_) handler(from, header);
  }
  remove_sent_file(begin, from.swapped, from.peer.uid);
  outbox_.lose_unrouted(from, header, from.in.last_tag, loss);
}

// Whether so much of an unfinished message may be kept for `from`.
bool Server::admit_unfinished(Client &from, size_t size) {
  Share &share = from.in.partial_share;
  const size_t counted = size > kUncounted ? size - kUncounted : 0;
  return counted <= share.amount() || share.grow(options_.limits, counted - share.amount());
}

// The message is refused. The rest of it is read and thrown away as it comes.
void Server::discard_rest(Client &from, std::span<const char> begin, const Header &header,
                          const Route &route) {
  const uint64_t record =
      journal_.accepted(from, receiver_of(route), header, begin.subspan(kHeaderSize));
  from.in.last_to = 0;
  from.in.last_tag = tag_of(from, header, record);
  from.in.partial_share = Share(from.account, Kept::kUnfinished);
  remove_sent_file(begin, from.swapped, from.peer.uid);
  accounts_.note_refusal(*from.account, "bytes of unfinished messages");
  outbox_.lose_unrouted(from, header, from.in.last_tag, Loss::kNotPermitted);
}

void Server::begin_stream(Client &from, Client &to, std::span<char> begin, const Header &header) {
  outbox_.flush();  // what came before it
  if (from.swapped != to.swapped) store_header(header, to.swapped, begin.data());
  Inbound &in = from.in;
  in.stream_tag = in.last_tag;
  in.stream = to.out.open_stream(begin, in.left, in.stream_tag, Flow::reserve_of(to));
  if (in.stream == nullptr) {
    outbox_.undelivered(to, in.stream_tag, begin, Loss::kQueueFull);
  } else {
    in.last_to = to.id;
    in.stream_to = &to;
    in.stream_size = begin.size() + in.left;
    in.left_at_check = in.left;
    watch_stream(from);
  }
  outbox_.after_output(to);
}

void Server::watch_stream(Client &from) {
  from.in.stream_timer =
      loop_->after(std::chrono::milliseconds(options_.stall_ms), [this, id = from.id] {
        Client *client = by_id(id);
        if (client == nullptr || client->in.stream == nullptr) return;
        const bool moves = client->in.left_at_check - client->in.left >= kStreamProgress;
        client->in.left_at_check = client->in.left;
        const bool goes_on = moves || client->holds > 0;
        if (goes_on &&
            loop_->attempt("a long message is not watched", [&] { watch_stream(*client); })) {
          return;
        }
        abandon_stream(*client, "its sender has stopped sending", true);
        outbox_.flush();
      });
}

// The rest of the message that is being passed on will be thrown away as it comes.
void Server::abandon_stream(Client &from, std::string_view why, bool tell) noexcept {
  Inbound &in = from.in;
  assert(in.stream != nullptr && in.stream_to != nullptr);
  Client &to = *in.stream_to;
  OutputQueue::Stream *stream = std::exchange(in.stream, nullptr);
  in.stream_to = nullptr;
  loop_->cancel(in.stream_timer);
  journal_.lost(Loss::kCutShort, in.stream_tag, party_of(from), &to, to.name);
  if (!to.out.broken()) {
    const bool taken_back = to.out.give_up(stream);
    loop_->attempt("a message is cut short", [&] {
      log_line("a message {} of {} bytes from {} to {} is cut short: {}; {}",
               catalogue::describe(in.stream_tag.type), in.stream_size, from.label(), to.label(),
               why,
               taken_back ? std::string("the receiver has seen nothing of it")
                          : fmt::format("its last {} bytes are sent as zeros", in.left));
    });
    outbox_.after_output(to);
  }
  if (tell) {
    outbox_.notify_undeliverable(from, in.stream_tag);
  } else {
    journal_.told(false);
  }
}

// Null, after ending the client, for a malformed header.
const Route *Server::resolve(Client &from, const Header &header) {
  if (header.ulDataLen > ORP_MSG_MAX_BODY) {
    end_malformed(from, fmt::format("it announced a body of {} bytes", header.ulDataLen), header);
    return nullptr;
  }
  // The two names are neighbours.
  Route &route = from.in.route;
  static_assert(offsetof(Header, aucRecvApp) == offsetof(Header, aucSendApp) + ORP_APP_NAME_SIZE);
  const char *names = reinterpret_cast<const char *>(&header) + offsetof(Header, aucSendApp);
  if (route.epoch == names_.epoch() &&
      std::memcmp(route.names.data(), names, route.names.size()) == 0) {
    return &route;
  }

  const auto receiver = AppName::from_field(header.aucRecvApp);
  const auto sender = AppName::from_field(header.aucSendApp);
  if (!receiver || !sender) {
    end_malformed(from, "it sent a header with an unterminated name", header);
    return nullptr;
  }
  std::memcpy(route.names.data(), names, route.names.size());
  route.epoch = names_.epoch();
  route.to_server = receiver->is_server();
  route.to = route.to_server ? nullptr : names_.receiver(*receiver);
  route.foreign = *sender != from.name;
  route.judged = 0;
  return &route;
}

// The message names another sender than its client. Puts the client's name there if the policy
// wants that. A registration is exempt: it has the name that the client would like to get.
void Server::check_sender(Client &from, std::span<char> frame, Header *header) {
  const uint32_t type = header->ulMsgType & ORP_MSG_TYPE_MASK;
  if (from.in.route.to_server && type == ORP_MSG_REGISTER) return;
  if (gate_.may_speak_for(from, AppName(std::string_view(header->aucSendApp)))) return;
  from.name.store(header->aucSendApp);
  from.name.store(frame.data() + offsetof(Header, aucSendApp));
}

// Why a message may not go where its names lead, which have just been looked up; none if it may.
Loss Server::obstacle(Client &from, const Header &header) {
  Route &route = from.in.route;
  const uint32_t type = header.ulMsgType & ORP_MSG_TYPE_MASK;
  if (!route.to_server && route.to == nullptr) return Loss::kNoSuchName;
  // This also holds for a message that the server would pass on to subscribers as an event.
  if (is_forged(header, gate_.policy().has_file(), route.to_server)) {
    gate_.refuse(from, Gate::Fault::kForged, "says what only the server does");
    return Loss::kNotPermitted;
  }
  if (!gate_.judges_messages()) return Loss::kNone;
  if (!route.passes || route.type != type || route.judged != gate_.epoch()) {
    route.passes = gate_.passes(from, route.to, type);
    route.type = type;
    route.judged = gate_.epoch();
  }
  return route.passes ? Loss::kNone : Loss::kNotPermitted;
}

void Server::deliver(Client &from, std::span<char> frame, Header header) {
  const Route &route = from.in.route;
  if (route.foreign) check_sender(from, frame, &header);
  const uint64_t record =
      journal_.accepted(from, receiver_of(route), header, frame.subspan(kHeaderSize));
  const OutputQueue::Tag tag = tag_of(from, header, record);
  from.in.last_to = 0;
  from.in.last_tag = tag;
  if (const Loss loss = obstacle(from, header); loss != Loss::kNone) {
    remove_sent_file(frame, from.swapped, from.peer.uid);
    outbox_.lose_unrouted(from, header, tag, loss);
    return;
  }
  if (route.to_server) {
    dispatch(from, frame, header, tag);
    return;
  }

  Client &to = *route.to;
  if ((header.ulMsgType & ORP_MSG_TYPE_BODY_IN_FILE) != 0 &&
      !pass_hand_over(frame.subspan(kHeaderSize), from.peer.uid, to.peer.uid)) {
    gate_.refuse(from, Gate::Fault::kForeignFile, "hands over a file that is not its own");
    outbox_.lose_unrouted(from, header, tag, Loss::kNotPermitted);
    return;
  }
  from.in.last_to = to.id;
  // The frame is ours, so that its header can be converted where it is.
  if (from.swapped != to.swapped) store_header(header, to.swapped, frame.data());
  outbox_.post(to, {frame.data(), frame.size(), tag, Flow::reserve_of(to)});
}

void Server::dispatch(Client &from, std::span<char> frame, const Header &header,
                      const OutputQueue::Tag &tag) {
  Message message{header, frame.subspan(kHeaderSize), frame, tag.record};
  if (const auto entry = handlers_.find(message.type()); entry != handlers_.end()) {
    std::string body;
    if ((header.ulMsgType & ORP_MSG_TYPE_BODY_IN_FILE) != 0) {
      if (!read_hand_over(message.body, kLongestServerBody, from.peer.uid, &body)) {
        log_line("{} sent a message {} whose body cannot be read from its file", from.label(),
                 catalogue::describe(message.type()));
        for (const RefusedHandler &handler : refused_messages_) handler(from, header);
        outbox_.lose_unrouted(from, header, tag, Loss::kNotServed);
        return;
      }
      message.body = body;
      message.header.ulDataLen = static_cast<uint32_t>(body.size());
    }
    if (!gate_.may_ask(from, message)) {
      outbox_.lose_unrouted(from, header, tag, Loss::kNotPermitted);
      return;
    }
    entry->second(from, message);
    return;
  }
  for (const auto &handler : rest_handlers_) {
    if (handler(from, message)) return;
  }
  remove_sent_file(frame, from.swapped, from.peer.uid);
  outbox_.lose_unrouted(from, header, tag, Loss::kNotServed);
}

}  // namespace msgsvr
