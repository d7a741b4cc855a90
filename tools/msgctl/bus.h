// msgctl's place on the message bus: one connection under a name of its own, on which it sends and
// waits for what comes.
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

// So long from now.
Deadline in_ms(uint64_t ms);
// How long it is until then, at least 0.
uint32_t ms_until(Deadline deadline);

struct FreeMessage {
  void operator()(ORP_MSG_HEADER_ST *message) const { std::free(message); }
};
using Message = std::unique_ptr<ORP_MSG_HEADER_ST, FreeMessage>;

std::string sender_of(const ORP_MSG_HEADER_ST &message);
std::string_view body_of(const ORP_MSG_HEADER_ST &message);
// For what tools say about messages. `answer`: it answers a request.
traffic::Message recorded(const ORP_MSG_HEADER_ST &message, bool answer);

// How people write the message server where a receiver's name is expected.
inline constexpr std::string_view kServerWord = "server";

// The name in a header of what the user called `word`: empty for the message server. Throws a usage
// error for a name that no application can have.
std::string receiver_name(const std::string &word);
// "wifi", or "the message server".
std::string receiver_text(const std::string &name);

class Bus {
 public:
  // What for: answers go to the oldest client of a name, so that somebody who waits for one needs a
  // name for himself.
  enum class Purpose { kSends, kIsAnswered };

  // Registers, until `deadline`. Throws a Failure that says what is wrong with the server.
  Bus(const Context &context, Purpose purpose, Deadline deadline);
  Bus(const Context &context, Purpose purpose) : Bus(context, purpose, in_ms(context.timeout_ms)) {}
  ~Bus();
  Bus(const Bus &) = delete;
  Bus &operator=(const Bus &) = delete;

  const std::string &name() const { return name_; }

  // Sends with a sequence number of its own, which it returns, or with `sequence`.
  uint32_t send(const std::string &to, uint32_t type, uint32_t data, std::string_view body,
                std::optional<uint32_t> sequence = {});

  // The next message of any kind; null when none comes until then. A reader of standard output who
  // has gone ends the process meanwhile, as it would at the next line.
  Message receive(Deadline deadline);

  // The answer to a request. Throws when it could not be delivered, or when no answer comes.
  Message ask(const std::string &to, uint32_t type, uint32_t data, std::string_view body,
              Deadline deadline);
  // The same for one that has been sent.
  Message answer(const std::string &to, uint32_t type, uint32_t sequence, Deadline deadline);

  // How many clients have that name.
  uint32_t count(const std::string &name, Deadline deadline);

  // Waits until the server has routed all that was sent before. Throws when it says that the
  // message with that type and number was not delivered.
  void settle(const std::string &to, uint32_t type, uint32_t sequence, Deadline deadline);

  // This client sends nothing by itself for long: the server is not to watch for that.
  void stay_quietly();

  // Subscribes to an event, or to all (ORP_MSG_ALL_EVENTS). What comes meanwhile is received next.
  // Throws when the server refuses that.
  void subscribe(uint32_t event, Deadline deadline);

 private:
  bool is_notice(const ORP_MSG_HEADER_ST &message, uint32_t type, uint32_t sequence) const;
  [[noreturn]] void fail_undelivered(const std::string &to, uint32_t type, Deadline deadline);

  const Context &context_;
  std::string name_;
  std::deque<Message> early_;  // came before its reader asked for it
};

// What a status of the library means for the user.
[[noreturn]] void fail(uint32_t status, const std::string &what);

}  // namespace msgctl
