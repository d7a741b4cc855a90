// Makes sense of the flight recorder's records: who the clients are, what became of each message,
// and which message answers which.
//
// An answer has its request's type and sequence number and goes the other way. Nothing in a message
// says whether its sender expects an answer; waits() decides that by the catalogue and by what has
// been seen.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "flight/reader.h"
#include "msgapi/msg.h"

namespace traffic {

using ClientId = uint32_t;  // the server's number of a client; 0 is the server

struct Client {
  std::string name;  // empty without one
  uint32_t pid = 0;
  uint32_t uid = 0;
  std::string program;  // or the address of a client on another board
  bool ended = false;
  std::string last_words;  // why it ended
};

// A message that the server has accepted. An event is one message to the server, however many
// applications get it.
struct Message {
  uint64_t number = 0;  // of the record that accepted it
  ClientId from = 0;
  ClientId to = 0;
  ORP_MSG_HEADER_ST header{};  // its type without the flags
  bool body_in_file = false;
  uint32_t board = 0;
  uint32_t length = 0;  // of the body
  std::string body;     // as much of it as was kept
  uint64_t accepted_ns = 0;
  uint64_t delivered_ns = 0;  // to the first receiver; 0: not yet
  flight::Loss loss = flight::Loss::kNone;
  uint64_t answers = 0;      // number of the request that this one answers; 0: none
  uint64_t answered_by = 0;  // number of its answer; 0: none yet
  uint64_t answered_ns = 0;  // when the answer was accepted

  uint32_t type() const { return header.ulMsgType; }
};

// A record with what is known about it.
struct Event {
  flight::Record record;
  uint64_t wall_ns = 0;              // since 1970
  std::string text;                  // of records that have one
  const Message *message = nullptr;  // that it is about; null when that is not known (any more)
  const Message *request = nullptr;  // that the message answers

  flight::Kind kind() const { return static_cast<flight::Kind>(record.kind); }
  flight::Loss loss() const { return static_cast<flight::Loss>(record.loss); }
};

// A request without an answer.
struct Wait {
  const Message *request;
  // Messages of this type are known to be answered, and the sender has sent nothing since.
  bool certain;
  // The sender has sent nothing since: it may be waiting synchronously.
  bool silent;
};

class Model {
 public:
  // So many clients that have left are remembered.
  static constexpr size_t kMostEnded = 1024;

  // Remembers the last `most_messages` messages.
  explicit Model(size_t most_messages = 65536) : most_messages_(most_messages) {}

  // The pointers in the event are valid until the next call.
  Event take(const flight::Entry &entry, uint64_t wall_ns);

  // What is known about a client; an empty Client for an unknown one.
  const Client &client(ClientId id) const;
  // Gives a client a name from another source. Its own records take precedence.
  void learn_name(ClientId id, std::string_view name);
  const std::map<ClientId, Client> &clients() const { return clients_; }
  // "wifi", "wifi[123]" while several have the name, "#7" for a client without one, "server".
  std::string label(ClientId id) const;
  const Message *message(uint64_t number) const;
  const std::deque<uint64_t> &messages() const { return order_; }

  // Requests whose answer is expected and has not come, the oldest first. `answered` says whether
  // messages of a type are answered, as far as the catalogue knows the type.
  using Known = std::function<std::optional<bool>(uint32_t type)>;
  std::vector<Wait> waits(const Known &answered) const;

  // Circles of waiting: clients in the order in which each waits for the next.
  static std::vector<std::vector<ClientId>> circles(const std::vector<Wait> &waits);

 private:
  using Key = std::tuple<ClientId, ClientId, uint32_t, uint32_t>;  // from, to, type, sequence

  void accept(const flight::Entry &entry);
  void end(const flight::Record &record, std::string_view reason);
  void link(Message *message);
  // Nobody waits for the message's answer any more.
  void close(const Message &message);
  void forget_oldest();
  Message *find(uint64_t number);

  size_t most_messages_;
  std::map<ClientId, Client> clients_;
  std::deque<ClientId> ended_;
  std::unordered_map<uint64_t, Message> messages_;
  std::deque<uint64_t> order_;
  std::map<Key, uint64_t> open_;                            // requests without an answer
  std::unordered_map<ClientId, uint64_t> last_sent_;        // number of each client's last message
  std::unordered_map<uint32_t, uint64_t> answers_by_type_;  // how many answers have been seen
};

}  // namespace traffic
