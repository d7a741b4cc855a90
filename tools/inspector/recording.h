// What the inspector knows of the traffic: the model, the summary, and as many records as a bounded
// memory holds. Not thread-safe: the mutex in bus.h guards it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "catalogue/type_files.h"
#include "flight/reader.h"
#include "inspector/sampler.h"
#include "inspector/summary.h"
#include "msgctl/event_text.h"
#include "traffic/filter.h"
#include "traffic/model.h"

namespace inspector {

// A record that is kept, with the messages that it refers to. Personal data is masked already,
// unless --no-mask was given.
struct Kept {
  uint64_t sequence = 0;  // 1, 2, 3 ... in this inspector
  uint32_t server = 0;    // 1, 2, 3 ...: the server that wrote it, in the order they were seen
  flight::Record record;
  uint64_t wall_ns = 0;
  std::string text;
  std::shared_ptr<traffic::Message> message;
  std::shared_ptr<traffic::Message> request;
  std::string json;
};

// Which records somebody wants to see.
struct Selection {
  traffic::Filter filter;
  bool all = false;  // also those that repeat others, like deliveries
  Range range;
};

class Recording {
 public:
  struct Limits {
    uint32_t per_second = 1000;  // records kept
    size_t records = 100'000;
    // The messages that the model remembers take up to 16 MiB more.
    size_t bytes = size_t{48} << 20;
  };

  Recording(const catalogue::Catalogue &catalogue, bool masked);
  Recording(const catalogue::Catalogue &catalogue, bool masked, const Limits &limits);

  // Another server has begun to record, up to `body_limit` bytes of each body. Numbers of clients
  // and records now mean other ones.
  void begin_server(uint32_t body_limit);
  // The records of a file follow, `count` of them over `span_ns`; the whole span is remembered.
  // Gaps in their numbers are no losses: a capture may have been filtered.
  void begin_past(uint64_t count, uint64_t span_ns);

  void take(const flight::Entry &entry, uint64_t wall_ns);
  // Gives a client a name from another source. Its own records take precedence.
  void name_client(traffic::ClientId id, std::string_view name);

  // The records from first_sequence() up to, but without, end_sequence() are kept.
  uint64_t first_sequence() const { return end_ - kept_.size(); }
  uint64_t end_sequence() const { return end_; }
  const Kept &at(uint64_t sequence) const {
    return kept_[static_cast<size_t>(sequence - first_sequence())];
  }
  bool matches(const Kept &kept, const Selection &selection) const;

  // The record as it was taken; valid as long as `kept`.
  static traffic::Event event_of(const Kept &kept);
  // A line for people.
  std::string line_of(const Kept &kept) const;
  // The model that knows the clients of the record.
  const traffic::Model &model_of(const Kept &kept) const;
  const traffic::Model &model() const { return models_.at(server_); }

  const Summary &summary() const { return summary_; }
  uint64_t records() const { return records_; }    // read
  uint64_t left_out() const { return left_out_; }  // of those not kept: there were too many
  uint64_t missed() const { return missed_; }      // overwritten before they could be read
  uint64_t forgotten() const { return end_ - 1 - kept_.size(); }  // kept, but not any more
  size_t bytes() const { return bytes_ + *message_bytes_; }
  uint64_t one_in() const { return sampler_.one_in(); }
  uint64_t first_wall_ns() const { return first_wall_ns_; }
  uint64_t last_wall_ns() const { return last_wall_ns_; }

 private:
  void count_missed(const flight::Record &record, uint64_t wall_ns);
  bool wants(const traffic::Event &event);
  void keep(const traffic::Event &event);
  std::shared_ptr<traffic::Message> copy_of(const traffic::Message &message);
  std::string masked(const std::string &text) const;
  void update_copies(const traffic::Event &event);
  std::string json_of(const Kept &kept) const;
  void forget_oldest();
  static size_t size_of(const Kept &kept);

  const bool masked_;
  Limits limits_;
  msgctl::EventText text_;  // masks nothing: what it gets is masked already
  Sampler sampler_;
  Sampler rare_;  // for rare events, so that a flood of messages does not displace them
  Summary summary_;
  uint32_t server_ = 0;
  std::map<uint32_t, traffic::Model> models_;  // by server; earlier ones know only their clients
  std::deque<Kept> kept_;
  uint64_t end_ = 1;
  // Copies of kept messages of the running server, by number.
  std::unordered_map<uint64_t, std::shared_ptr<traffic::Message>> messages_;
  size_t bytes_ = 0;  // of what is kept, without the copies of messages
  // Bytes of all copies of messages. A copy lives as long as a record refers to it.
  std::shared_ptr<size_t> message_bytes_ = std::make_shared<size_t>(0);
  bool past_ = false;
  uint64_t last_number_ = 0;
  uint64_t records_ = 0;
  uint64_t left_out_ = 0;
  uint64_t missed_ = 0;
  uint64_t first_wall_ns_ = 0;
  uint64_t last_wall_ns_ = 0;
};

}  // namespace inspector
