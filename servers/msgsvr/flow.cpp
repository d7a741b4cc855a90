// Slow readers.
//
// While a reader's queue is more than half full, the server does not read from those who send to
// it. So a reader that is merely slower than its senders keeps up without loss. Each sender may
// still bring one more read; for that the queue may grow to twice its limit. Nobody waits for a
// reader for long: one that takes next to nothing for the length of the patience has used it up.
// From then on nobody waits for it, and what does not fit is lost, until its queue has been empty.

#include "msgsvr/flow.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "msgsvr/client.h"

namespace msgsvr {
namespace {

// The least that a reader must take between two checks while senders wait for it.
constexpr uint64_t kLeastBytes = 65536;
constexpr uint64_t kLeastFrames = 1000;

size_t high_mark(const OutputQueue &queue) {
  return queue.limit() / 2;
}
size_t low_mark(const OutputQueue &queue) {
  return queue.limit() / 4;
}

}  // namespace

void Flow::watch(Client &reader) {
  if (reader.out.empty()) {
    if (std::exchange(reader.backlog.half_full, false)) journal_->empty_again(reader);
    reader.note_empty();
    reader.backlog.slow = false;
  }
  if (reader.out.weight() > high_mark(reader.out) &&
      !std::exchange(reader.backlog.half_full, true)) {
    journal_->half_full(reader);
  }
  if (reader.out.weight() <= low_mark(reader.out)) {
    release_all(reader);
    return;
  }
  // The reader waits for the rest of a long message. That message's sender must go on, or the queue
  // stays full.
  if (const OutputQueue::Tag *awaited = reader.out.awaited()) release(reader, awaited->origin);
  if (routed_ != nullptr && !routed_->ended && !reader.backlog.slow &&
      reader.out.weight() > high_mark(reader.out) && !is_owed(reader, *routed_)) {
    hold(*routed_, reader);
  }
}

bool Flow::is_owed(const Client &reader, const Client &sender) {
  const OutputQueue::Tag *awaited = reader.out.awaited();
  return awaited != nullptr && awaited->origin == sender.id;
}

size_t Flow::reserve_of(const Client &reader) {
  return reader.backlog.slow ? 0 : reader.out.limit();
}

void Flow::hold(Client &sender, Client &reader) {
  Backlog &backlog = reader.backlog;
  if (std::find(backlog.held.begin(), backlog.held.end(), sender.id) != backlog.held.end()) return;
  if (backlog.timer == 0) check_patience(reader);
  backlog.held.push_back(sender.id);
  ++sender.holds;
  clients_->update_interest(sender);
}

void Flow::check_patience(Client &reader) {
  reader.backlog.bytes_at_check = reader.out.bytes_written();
  reader.backlog.frames_at_check = reader.out.frames_written();
  reader.backlog.timer = loop_->after(patience_, [this, id = reader.id] {
    Client *client = clients_->by_id(id);
    if (client == nullptr) return;
    client->backlog.timer = 0;
    if (client->backlog.held.empty()) return;
    const OutputQueue &out = client->out;
    // When the queue waits for the rest of a long message, the reader is not to blame. The
    // message's sender has a time limit of its own.
    const bool reads = out.awaited() != nullptr ||
                       out.bytes_written() - client->backlog.bytes_at_check >= kLeastBytes ||
                       out.frames_written() - client->backlog.frames_at_check >= kLeastFrames;
    if (reads && loop_->attempt("a reader is not watched", [&] { check_patience(*client); })) {
      return;
    }
    client->backlog.slow = true;
    release_all(*client);
    clients_->flush();
  });
}

void Flow::release(Client &reader, uint32_t sender) noexcept {
  if (std::erase(reader.backlog.held, sender) == 0) return;
  Client *client = clients_->by_id(sender);
  if (client == nullptr) return;
  assert(client->holds > 0);
  --client->holds;
  clients_->update_interest(*client);
}

void Flow::release_all(Client &reader) noexcept {
  if (reader.backlog.held.empty()) return;
  loop_->cancel(std::exchange(reader.backlog.timer, 0));
  for (uint32_t id : std::exchange(reader.backlog.held, {})) {
    Client *sender = clients_->by_id(id);
    if (sender == nullptr) continue;
    assert(sender->holds > 0);
    --sender->holds;
    clients_->update_interest(*sender);
  }
}

}  // namespace msgsvr
