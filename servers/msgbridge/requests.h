// Requests from outside that are under way on the bus, and their answers.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "msgapi/msg.h"
#include "msgbridge/downward.h"
#include "msgbridge/timer.h"

namespace msgbridge {

// Where an answer goes.
struct ReplyTo {
  std::string topic;
  std::string correlation;
};

class Requests {
 public:
  using Answer = std::function<void(const ReplyTo &to, AnswerStatus status, std::string payload)>;
  struct Counters {
    uint64_t requests = 0;
    uint64_t refused = 0;
    uint64_t timed_out = 0;
  };

  // Registers procedures for the types that the rules allow. Only one may live in a process: the
  // procedures must find it.
  Requests(const Config *config, const catalogue::Catalogue *types, std::string base,
           Answer answer);
  ~Requests();
  Requests(const Requests &) = delete;
  Requests &operator=(const Requests &) = delete;

  // Sends a request on the bus and answers later. Answers at once if that cannot be done.
  void take(const Publication &publication, ReplyTo to);
  // The message server has gone: no answer will come.
  void fail_all();

  size_t under_way() const { return pending_.size(); }
  const Counters &counters() const { return counters_; }

 private:
  struct Pending {
    ReplyTo to;
    uint32_t type;
    std::string app;  // empty: whoever serves the path
    bool mask;
    std::unique_ptr<Timer> timer;
  };

  void send(const RestRequest &request, ReplyTo to);
  void send(const CallRequest &request, ReplyTo to);
  void send(ORP_MSG_HEADER_ST *message, Pending pending, uint32_t timeout_ms);
  void refuse(const ReplyTo &to, AnswerStatus status, std::string_view why);
  void answered(const ORP_MSG_HEADER_ST &message);
  void undelivered(const ORP_MSG_HEADER_ST &notice);
  std::optional<Pending> finish(uint32_t sequence);

  const Config *config_;
  const catalogue::Catalogue *types_;
  std::string base_;
  Answer answer_;
  std::map<uint32_t, Pending> pending_;  // by the message's sequence number
  std::set<ORP_MSG_REG_HANDLE> registrations_;
  Counters counters_;
};

}  // namespace msgbridge
