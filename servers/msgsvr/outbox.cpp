#include "msgsvr/outbox.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>

#include "msgsvr/hand_over.h"

namespace msgsvr {
namespace {

constexpr size_t kScratchBlock = 65536;

// A full queue still takes this much of what the server has to say itself.
constexpr size_t kNoticeReserve = 65536;

// The most frames of one turn for which a client keeps the memory until the next.
constexpr size_t kFramesKept = 64;

}  // namespace

char *Scratch::take(size_t size) {
  if (block_left_ < size) {
    const size_t fresh = std::max(size, kScratchBlock);
    blocks_.push_back(std::make_unique_for_overwrite<char[]>(fresh));
    block_left_ = fresh;
    next_ = blocks_.back().get();
  }
  block_left_ -= size;
  return std::exchange(next_, next_ + size);
}

void Scratch::reset() {
  if (blocks_.size() > 1) {
    blocks_.clear();
    block_left_ = 0;
  } else if (!blocks_.empty()) {
    // The first block may be larger than that; its true size is not kept.
    next_ = blocks_.front().get();
    block_left_ = kScratchBlock;
  }
}

void Outbox::send(Client &to, Header header, std::span<const char> body, uint32_t file) {
  header.ulDataLen = static_cast<uint32_t>(body.size());
  OutputQueue::Tag tag;
  tag.type = header.ulMsgType & ORP_MSG_TYPE_MASK;
  tag.silent = 1;
  tag.sequence = header.ulSeqNum;
  tag.file_key = file;
  tag.record = journal_->made(to.id, header, body);
  send_tagged(to, header, body, tag);
}

void Outbox::send_on(Client &to, Header header, std::span<const char> body, const Client &from,
                     const Message &message) {
  header.ulDataLen = static_cast<uint32_t>(body.size());
  OutputQueue::Tag tag = silent_tag(from, message);
  tag.silent = 0;
  send_tagged(to, header, body, tag);
}

void Outbox::send_on_silently(Client &to, Header header, std::span<const char> body,
                              const Client &from, const Message &message, uint32_t file) {
  header.ulDataLen = static_cast<uint32_t>(body.size());
  send_tagged(to, header, body, silent_tag(from, message, file));
}

void Outbox::send_tagged(Client &to, const Header &header, std::span<const char> body,
                         const OutputQueue::Tag &tag) {
  char *frame = scratch_.take(kHeaderSize + body.size());
  store_header(header, to.swapped, frame);
  std::copy(body.begin(), body.end(), frame + kHeaderSize);
  post(to, {frame, kHeaderSize + body.size(), tag, Flow::reserve_of(to) + kNoticeReserve});
}

OutputQueue::Tag Outbox::silent_tag(const Client &from, const Message &message, uint32_t file) {
  OutputQueue::Tag tag;
  tag.origin = from.id;
  tag.type = message.header.ulMsgType & ORP_MSG_TYPE_MASK;
  tag.silent = 1;
  tag.sequence = message.header.ulSeqNum;
  tag.file_key = file;
  tag.record = message.record;
  return tag;
}

void Outbox::reply(Client &to, const Message &request, uint32_t data, std::span<const char> body) {
  Header header{};
  header.ulMsgType = request.type();
  header.ulSeqNum = request.header.ulSeqNum;
  // A requester may insist that the answer comes from the name to which it sent the request.
  std::memcpy(header.aucSendApp, request.header.aucRecvApp, sizeof header.aucSendApp);
  to.name.store(header.aucRecvApp);
  header.ulMsgData = data;
  send(to, header, body);
}

void Outbox::pass(Client &to, const Client &from, const Message &message) {
  std::span<const char> frame = message.frame;
  if (from.swapped != to.swapped) {
    char *copy = scratch_.take(frame.size());
    std::copy(frame.begin(), frame.end(), copy);
    store_header(load_header(copy, from.swapped), to.swapped, copy);
    frame = {copy, frame.size()};
  }
  post(to, {frame.data(), frame.size(), silent_tag(from, message), Flow::reserve_of(to)});
}

void Outbox::lose(Client &from, const Message &message, Loss loss) noexcept {
  lose_unrouted(from, message.header, silent_tag(from, message), loss);
}

void Outbox::lose_silently(const Client &from, const Message &message, Loss loss,
                           Client *to) noexcept {
  journal_->lost(loss, silent_tag(from, message), party_of(from), to,
                 to == nullptr ? AppName(kServerName) : to->name);
  journal_->told(false);
}

void Outbox::lose_unrouted(Client &from, const Header &header, const OutputQueue::Tag &tag,
                           Loss loss) noexcept {
  const AppName receiver(std::string_view(header.aucRecvApp, ORP_APP_NAME_SIZE));
  journal_->lost(loss, tag, party_of(from), nullptr,
                 receiver.empty() ? AppName(kServerName) : receiver);
  notify_undeliverable(from, tag);
}

void Outbox::notify_undeliverable(Client &to, const OutputQueue::Tag &tag) noexcept {
  Header header{};
  header.ulMsgType = ORP_MSG_UNDELIVERABLE;
  header.ulSeqNum = tag.sequence;
  AppName(kServerName).store(header.aucSendApp);
  to.name.store(header.aucRecvApp);
  header.ulMsgData = tag.type;
  journal_->told(loop_->attempt("a sender is not told of its loss", [&] { send(to, header); }));
}

void Outbox::post(Client &to, const OutputQueue::Frame &frame) {
  if (!to.touched) {
    touched_.push_back(&to);
    to.touched = true;
  }
  to.pending.push_back(frame);
  ++posted_;
}

void Outbox::flush() noexcept {
  // A notice to a sender touches that sender's queue, so this goes on until no queue is touched.
  while (!touched_.empty()) {
    Client &to = *touched_.back();
    touched_.pop_back();
    assert(to.touched);
    to.touched = false;
    std::vector<OutputQueue::Frame> sending = std::move(to.pending);
    to.pending.clear();
    const size_t refused = to.out.send(sending);
    for (const OutputQueue::Frame &frame : std::span(sending).first(refused)) {
      undelivered(to, frame.tag, {frame.data, frame.size}, Loss::kQueueFull);
    }
    if (to.pending.empty() && sending.capacity() <= kFramesKept) {
      sending.clear();
      to.pending = std::move(sending);
    }
    after_output(to);
  }
  posted_ = 0;
  scratch_.reset();
  journal_->turn_ends();
}

void Outbox::after_output(Client &to) noexcept {
  if (to.ended) return;
  if (to.out.broken()) {
    clients_->silence(to);
  } else {
    loop_->attempt("a client's queue is not looked after", [&] { flow_->watch(to); });
  }
  clients_->update_interest(to);
}

void Outbox::undelivered(Client &to, const OutputQueue::Tag &tag, std::span<const char> frame,
                         Loss loss) noexcept {
  const bool gone = loss == Loss::kReceiverGone || to.out.broken();
  Client *sender = tag.origin == 0 ? nullptr : clients_->by_id(tag.origin);
  const Loss kind = tag.descriptor ? Loss::kDescriptor : gone ? Loss::kReceiverGone : loss;
  const Party from = tag.origin == 0     ? the_server()
                     : sender == nullptr ? Party{tag.origin, {}}
                                         : party_of(*sender);
  journal_->lost(kind, tag, from, &to, to.name);
  if (!gone) to.note_overflow(1);
  if (!tag.silent) {
    remove_sent_file(frame, to.swapped, tag.file_key, to.peer.uid);
  } else if (tag.file_key != 0) {
    remove_hand_over(tag.file_key);
  }
  if (tag.silent || sender == nullptr || sender->out.broken()) {
    journal_->told(false);
    if (tag.origin == 0 && tag.type == ORP_MSG_UNDELIVERABLE) journal_->notice_lost();
    return;
  }
  notify_undeliverable(*sender, tag);
}

}  // namespace msgsvr
