// One connection to the message server: what is known about it, and its state in both directions.
// Server does the work.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "common/event_loop.h"
#include "common/output_queue.h"
#include "common/peer.h"
#include "common/unique_fd.h"
#include "msgsvr/account.h"
#include "msgsvr/passport.h"
#include "msgsvr/wire.h"

namespace msgsvr {

using servers::EventLoop;
using servers::OutputQueue;
using servers::UniqueFd;

class Server;
struct Client;

// Where the names in a header lead. Most headers of a client have the same two names as the one
// before, so the last answer is kept. It is valid until any name changes hands.
struct Route {
  std::array<char, size_t{2} * ORP_APP_NAME_SIZE> names{};  // sender and receiver, as in the header
  uint64_t epoch = 0;                                       // of the server's names; 0: never
  bool to_server = false;
  bool foreign = false;  // the sender's name is not the client's
  Client *to = nullptr;  // null: the server, or nobody

  // The policy's verdict on a message of this type there, valid while the gate's epoch is this one.
  uint64_t judged = 0;
  uint32_t type = 0;
  bool passes = false;
};

// The bytes of a client's connection, cut into frames.
struct Inbound {
  Route route;

  // The beginning of a frame that is kept until it is whole. The header tells the full size.
  std::vector<char> partial;
  size_t partial_size = 0;
  Share partial_share;

  // Bytes of the current frame that go straight into `stream`, or nowhere without one.
  uint64_t left = 0;
  OutputQueue::Stream *stream = nullptr;
  Client *stream_to = nullptr;
  OutputQueue::Tag stream_tag{};
  uint64_t stream_size = 0;
  uint64_t left_at_check = 0;
  EventLoop::TimerId stream_timer = 0;

  // Where the last message went (0: nowhere). A descriptor that follows it goes there, too.
  uint32_t last_to = 0;
  OutputQueue::Tag last_tag{};
  // The second of a descriptor's two bytes is still to come.
  bool owes_zero = false;

  bool between_frames() const { return partial.empty() && left == 0; }
};

// Senders that wait until this client has read something, and for how long they do.
struct Backlog {
  std::vector<uint32_t> held;  // the clients whose input rests
  EventLoop::TimerId timer = 0;
  uint64_t bytes_at_check = 0;
  uint64_t frames_at_check = 0;
  bool slow = false;       // it has used up the patience: nobody waits until its queue is empty
  bool half_full = false;  // the queue was more than half full since it was last empty
};

struct Client final : servers::Peer, OutputQueue::Observer {
  Client(Server *server_in, uint32_t id_in, UniqueFd fd_in, size_t queue_limit);
  void ready(uint32_t events) override;
  void failed(const char *why) noexcept override;
  void wrote() noexcept override;
  void written(const OutputQueue::Tag &tag) noexcept override;
  void descriptor_passed(const OutputQueue::Tag &tag) noexcept override;
  void descriptor_dropped(const OutputQueue::Tag &tag) noexcept override;

  // For log lines: "name[pid]", or the address instead of the process where there is none.
  std::string label() const override;

  Server *const server;
  const uint32_t id;          // never 0, never used twice
  const std::string address;  // empty for a Unix connection
  const std::chrono::system_clock::time_point connected_at = std::chrono::system_clock::now();
  const EventLoop::Clock::time_point connected = EventLoop::Clock::now();
  std::shared_ptr<Account> account;
  Share connection;
  AppName name;
  Passport passport;
  bool swapped = false;  // its headers travel in the other byte order
  bool ended = false;

  Inbound in;
  Backlog backlog;
  // What the current turn sends to it, in order.
  std::vector<OutputQueue::Frame> pending;
  bool touched = false;
  int holds = 0;  // backlogs that hold this client's input

  uint64_t frames_in = 0;
  uint64_t bytes_in = 0;
};

}  // namespace msgsvr
