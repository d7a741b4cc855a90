// msgctl's place on the message bus: one connection under a name of its own, to send and receive.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "msgapi/msg.h"
#include "msgctl/context.h"
#include "traffic/model.h"

namespace msgctl {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

// `ms` from now.
Deadline in_ms(uint64_t ms);
// The time left until then; 0 when it has passed.
uint32_t ms_until(Deadline deadline);

struct FreeMessage {
  void operator()(ORP_MSG_HEADER_ST *message) const { std::free(message); }
};
using Message = std::unique_ptr<ORP_MSG_HEADER_ST, FreeMessage>;

std::string sender_of(const ORP_MSG_HEADER_ST &message);
std::string_view body_of(const ORP_MSG_HEADER_ST &message);
// The message as the tools' text functions take it. `answer`: it answers a request.
traffic::Message recorded(const ORP_MSG_HEADER_ST &message, bool answer);

// What people type for the message server in place of a receiver's name.
inline constexpr std::string_view kServerWord = "server";

// The receiver in a message header for what the user typed: empty for the message server. Throws a
// usage error for a name that no application can have.
std::string receiver_name(const std::string &word);
// "wifi", or "the message server".
std::string receiver_text(const std::string &name);

class Bus {
 public:
  // Answers go to the oldest client of a name, so a client that waits for answers needs a name that
  // nobody else has.
  enum class Purpose { kSends, kIsAnswered };

  // Registers. Throws a Failure that says what is wrong with the server, at the latest at
  // `deadline`.
  Bus(const Context &context, Purpose purpose, Deadline deadline);
  Bus(const Context &context, Purpose purpose) : Bus(context, purpose, in_ms(context.timeout_ms)) {}
  ~Bus();
  Bus(const Bus &) = delete;
  Bus &operator=(const Bus &) = delete;

  const std::string &name() const { return name_; }

  // Sends with `sequence`, or with a new sequence number. Returns the number.
  uint32_t send(const std::string &to, uint32_t type, uint32_t data, std::string_view body,
                std::optional<uint32_t> sequence = {});

  // The next message of any kind; null when none comes until then. Ends the process when nobody
  // reads standard output any more, as printing the next line would.
  Message receive(Deadline deadline);

  // Sends a request and returns its answer. Throws when the request was not delivered, or when no
  // answer comes.
  Message ask(const std::string &to, uint32_t type, uint32_t data, std::string_view body,
              Deadline deadline);
  // The same for a request that has been sent already.
  Message answer(const std::string &to, uint32_t type, uint32_t sequence, Deadline deadline);

  // How many clients have that name.
  uint32_t count(const std::string &name, Deadline deadline);

  // Waits until the server has routed everything that was sent before. Throws when the server says
  // that the message with this type and sequence number was not delivered.
  void settle(const std::string &to, uint32_t type, uint32_t sequence, Deadline deadline);

  // Tells the server not to watch this client: it will send nothing for a long time.
  void stay_quietly();

  // Subscribes to an event, or to all (ORP_MSG_ALL_EVENTS). Messages that come meanwhile are
  // received next. Throws when the server refuses.
  void subscribe(uint32_t event, Deadline deadline);

 private:
  bool is_notice(const ORP_MSG_HEADER_ST &message, uint32_t type, uint32_t sequence) const;
  [[noreturn]] void fail_undelivered(const std::string &to, uint32_t type, Deadline deadline);

  const Context &context_;
  std::string name_;
  std::deque<Message> early_;  // came while subscribe() waited
};

// Throws the Failure that a status of the library means for the user.
[[noreturn]] void fail(uint32_t status, const std::string &what);

}  // namespace msgctl
