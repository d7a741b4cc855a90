// The bridge: takes events from the bus through the spool to the broker, and requests from the
// broker to the bus.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "msgbridge/config.h"
#include "msgbridge/link.h"
#include "msgbridge/requests.h"
#include "msgbridge/spool.h"
#include "msgbridge/timer.h"
#include "msgbridge/token_bucket.h"
#include "msgbridge/upward.h"

namespace msgbridge {

class Bridge {
 public:
  // `config` and `types` must outlive this.
  Bridge(const Config *config, const catalogue::Catalogue *types, const std::string &gateway);

  void start();
  // Its rules say which events to subscribe to.
  const Upward &upward() const { return upward_; }
  void take_event(uint32_t type, std::string_view data);
  void bus_changed(bool connected);
  // Writes everything to the disk and tells the broker that the gateway goes.
  void stop();

 private:
  std::string topic(std::string_view below) const { return base_ + "/" + std::string(below); }
  void commit();
  void report_spool();
  void pump();
  bool send(const Item &item);
  void connected();
  void ended();
  void acknowledged(int id, int reason);
  void arrived(const mosquitto_message &message, const mosquitto_property *properties);
  void answer(const ReplyTo &to, AnswerStatus status, const std::string &payload);
  void publish_metrics();
  std::string status_text(std::string_view state) const;
  mqtt::Properties &describe(mqtt::Properties *properties, uint64_t sequence,
                             const std::string &boot) const;

  const Config *config_;
  std::string base_;
  std::string boot_;
  Spool spool_;
  Upward upward_;
  Link link_;
  Requests requests_;
  Timer commit_timer_;
  Timer pump_timer_;
  Timer age_timer_;
  Timer metrics_timer_;

  std::unordered_map<int, uint64_t> in_flight_;  // publications: the spool's number
  std::unordered_set<int> answers_;              // publications that are answers
  // Publications that are done while send() still runs, before their number is known: those with
  // QoS 0 when the socket takes them at once.
  std::unordered_set<int> early_;
  bool sending_ = false;
  std::optional<Item> held_;  // the next item to be sent
  TokenBucket drain_;         // limits the rate of events that have waited
  uint64_t backlog_end_ = 0;  // the last event that waited for this connection
  std::string disk_problem_;  // the last one that was logged
  uint32_t begun_anew_ = 0;   // spool_.begun_anew() when it was last looked at
  uint64_t unanswerable_ = 0;
};

}  // namespace msgbridge
