#include "msgbridge/bridge.h"

#include <mqtt_protocol.h>

#include <algorithm>

#include "msgapi/kit.h"
#include "msgbridge/json_text.h"
#include "msgbridge/say.h"

namespace msgbridge {
namespace {

// After this time a disk that has refused is tried again.
constexpr uint32_t kDiskPeriod_ms = 1000;
constexpr uint32_t kAgePeriod_ms = 60'000;
constexpr uint32_t kDrainPeriod_ms = 20;
// Acknowledgements are written with the next events, or alone after this time. They may wait: when
// the process is killed, their events are sent again, and every write wears the flash.
constexpr uint32_t kAcknowledgePeriod_ms = 1000;
// One call sends at most so many, so that the loop can serve everything else.
constexpr int kMostSent = 256;
// This much is written at once, without waiting for more.
constexpr uint64_t kBatchBytes = 256 << 10;
// Answers that may wait for the broker. A flood of requests gets no answers beyond that.
constexpr size_t kMostAnswers = 256;
constexpr size_t kLongestCorrelation = 1024;

constexpr int kQuotaExceeded = 0x97;  // MQTT 5, 2.4

}  // namespace

Bridge::Bridge(const Config *config, const catalogue::Catalogue *types, const std::string &gateway)
    : config_(config),
      base_(config->prefix + "/" + topic_level(gateway)),
      boot_(Spool::system_clock().boot),
      spool_(config->spool),
      upward_(config->up, config->prefix, gateway),
      // Brokers take UTF-8 for a client's id, and no "/", "+" or "#" in one that rules refer to.
      link_(config, config->client_id.empty() ? topic_level(gateway) : config->client_id,
            {topic("status"), status_text("offline")},
            {[this] { connected(); }, [this] { ended(); },
             [this](int id, int reason) { acknowledged(id, reason); },
             [this](const mosquitto_message &message, const mosquitto_property *properties) {
               arrived(message, properties);
             }}),
      requests_(config, types, base_,
                [this](const ReplyTo &to, AnswerStatus status, const std::string &payload) {
                  answer(to, status, payload);
                }),
      commit_timer_([this] { commit(); }),
      pump_timer_([this] { pump(); }),
      age_timer_([this] {
        age_timer_.start(kAgePeriod_ms);
        commit();
      }),
      metrics_timer_([this] { publish_metrics(); }),
      // Up to a tenth of a second's events at once: the timer has a period, and the loop may be
      // late.
      drain_(config->spool.per_second, std::max(config->spool.per_second / 10.0, 1.0)) {
  if (!spool_.problem().empty()) say(MLOG_LEVEL_WARN, "The spool: {}.", spool_.problem());
}

void Bridge::start() {
  say(MLOG_LEVEL_INFO, "Ready, as {}; {} events wait.", base_, spool_.waiting());
  age_timer_.start(kAgePeriod_ms);
  if (config_->metrics_s > 0) metrics_timer_.start(config_->metrics_s * 1000);
  link_.start();
}

// ---- Up ----

void Bridge::take_event(uint32_t type, std::string_view data) {
  std::optional<Event> event = upward_.take(type, data, Spool::system_clock());
  if (!event) return;
  spool_.append(std::move(*event));
  if (!disk_problem_.empty()) {
    commit_timer_.start_if_idle(kDiskPeriod_ms);
  } else if (spool_.unwritten_bytes() > kBatchBytes) {
    commit();
  } else {
    commit_timer_.start_within(config_->spool.commit_ms);
  }
}

void Bridge::commit() {
  commit_timer_.stop();
  const bool done = spool_.commit();
  report_spool();
  // After a problem the next commit shows whether it is over.
  if (!done || !disk_problem_.empty()) commit_timer_.start(kDiskPeriod_ms);
  pump();
}

void Bridge::report_spool() {
  if (spool_.problem() != disk_problem_) {
    disk_problem_ = spool_.problem();
    if (!disk_problem_.empty()) {
      say(MLOG_LEVEL_ERROR, "The spool: {}.", disk_problem_);
    } else {
      say(MLOG_LEVEL_INFO, "The spool is written again.");
    }
  }
  if (spool_.begun_anew() == begun_anew_) return;
  begun_anew_ = spool_.begun_anew();
  // Events on their way have become a loss. Their acknowledgements must not count for the loss.
  if (link_.up()) link_.end("the spool has lost what was on its way");
}

void Bridge::pump() {
  const int64_t now_ms = Spool::system_clock().boot_ms;
  for (int sent = 0; link_.up() && in_flight_.size() < link_.window(); ++sent) {
    if (sent == kMostSent) {
      pump_timer_.start_if_idle(1);
      return;
    }
    if (!held_) held_ = spool_.next();
    if (!held_) {
      if (spool_.reads()) return;
      report_spool();
      commit_timer_.start_within(kDiskPeriod_ms);
      return;
    }
    const auto *event = std::get_if<Event>(&*held_);
    if (event != nullptr && event->sequence <= backlog_end_ && !drain_.takes(now_ms)) {
      pump_timer_.start_if_idle(kDrainPeriod_ms);
      return;
    }
    if (!send(*held_)) return;
    held_.reset();
  }
}

mqtt::Properties &Bridge::describe(mqtt::Properties *properties, uint64_t sequence,
                                   const std::string &boot) const {
  properties->add_byte(MQTT_PROP_PAYLOAD_FORMAT_INDICATOR, 1);
  properties->add_text(MQTT_PROP_CONTENT_TYPE, "application/json");
  properties->add_user("stream", spool_.stream());
  properties->add_user("sequence", std::to_string(sequence));
  properties->add_user("boot", boot);
  return *properties;
}

// False when the connection does not take the item now.
bool Bridge::send(const Item &item) {
  mqtt::Properties properties;
  Link::Sent sent{};
  uint64_t number;
  early_.clear();
  sending_ = true;
  if (const auto *event = std::get_if<Event>(&item)) {
    number = event->sequence;
    describe(&properties, number, event->boot).add_user("time", std::to_string(event->wall_ms));
    sent = link_.publish(event->topic, event->payload, event->qos, event->retain, properties);
  } else {
    const auto &loss = std::get<Loss>(item);
    number = loss.first;
    const std::string text = json_line({{"first", loss.first},
                                        {"last", loss.last},
                                        {"count", loss.count},
                                        {"reason", reason_word(loss.reason)}});
    sent = link_.publish(topic("lost"), text, 1, false, describe(&properties, number, boot_));
  }
  sending_ = false;
  switch (sent.error) {
    case MOSQ_ERR_SUCCESS:
      if (early_.contains(sent.id)) {
        spool_.acknowledge(number);
        commit_timer_.start_within(kAcknowledgePeriod_ms);
      } else {
        in_flight_[sent.id] = number;
      }
      return true;
    case MOSQ_ERR_NO_CONN:
    case MOSQ_ERR_CONN_LOST:
    case MOSQ_ERR_NOMEM:
    case MOSQ_ERR_ERRNO:
      pump_timer_.start_if_idle(kDiskPeriod_ms);
      return false;
    default:
      say(MLOG_LEVEL_ERROR, "Event {} cannot be sent: {}.", number, mosquitto_strerror(sent.error));
      spool_.refuse(number);
      commit_timer_.start_within(kAcknowledgePeriod_ms);
      return true;
  }
}

void Bridge::acknowledged(int id, int reason) {
  answers_.erase(id);
  const auto entry = in_flight_.find(id);
  if (entry == in_flight_.end()) {
    if (sending_) early_.insert(id);
    return;
  }
  const uint64_t number = entry->second;
  if (reason == kQuotaExceeded) {
    link_.end("the broker takes no more for now");
    return;
  }
  in_flight_.erase(entry);
  if (reason >= kFirstError) {
    say(MLOG_LEVEL_ERROR, "The broker refuses event {}: {}.", number,
        mosquitto_reason_string(reason));
    spool_.refuse(number);
  } else {
    spool_.acknowledge(number);
  }
  commit_timer_.start_within(kAcknowledgePeriod_ms);
  // The next events are sent from the loop, because this may run within a call of libmosquitto.
  pump_timer_.start_if_idle(1);
}

// ---- The connection ----

std::string Bridge::status_text(std::string_view state) const {
  Json status{{"state", state}, {"boot", boot_}};
  if (state == "online") {
    status["version"] = MSGAPI_VERSION;
    status["stream"] = spool_.stream();
    status["sequence"] = spool_.last_sequence();
    status["given_up"] = spool_.given_up();
    status["waiting"] = spool_.waiting();
    status["connection"] = link_.connections();
  }
  return json_line(status);
}

void Bridge::connected() {
  backlog_end_ = spool_.last_sequence();
  mqtt::Properties properties;
  properties.add_byte(MQTT_PROP_PAYLOAD_FORMAT_INDICATOR, 1);
  properties.add_text(MQTT_PROP_CONTENT_TYPE, "application/json");
  (void)link_.publish(topic("status"), status_text("online"), 1, true, properties);
  if (!config_->down.rest.empty()) link_.subscribe(topic("rest/+/#"));
  if (!config_->down.calls.empty()) link_.subscribe(topic("call/+/+"));
  pump_timer_.start_if_idle(1);
}

void Bridge::ended() {
  held_.reset();
  in_flight_.clear();
  answers_.clear();
  commit();  // so that acknowledged events are not sent again
  spool_.rewind();
}

void Bridge::stop() {
  (void)spool_.commit();
  link_.farewell(topic("status"), status_text("offline"));
  say(MLOG_LEVEL_INFO, "{} events wait for the broker, {} have been given up.", spool_.waiting(),
      spool_.given_up());
}

void Bridge::publish_metrics() {
  metrics_timer_.start(config_->metrics_s * 1000);
  if (!link_.up()) return;
  const Upward::Counters &up = upward_.counters();
  const Requests::Counters &down = requests_.counters();
  const Json metrics{{"stream", spool_.stream()},
                     {"sequence", spool_.last_sequence()},
                     {"waiting", spool_.waiting()},
                     {"waiting_bytes", spool_.waiting_bytes()},
                     {"given_up", spool_.given_up()},
                     {"connections", link_.connections()},
                     {"up",
                      {{"taken", up.taken},
                       {"no_rule", up.no_rule},
                       {"limited", up.limited},
                       {"sampled", up.sampled},
                       {"unreadable", up.unreadable}}},
                     {"down",
                      {{"requests", down.requests},
                       {"refused", down.refused},
                       {"timed_out", down.timed_out},
                       {"unanswerable", unanswerable_},
                       {"under_way", requests_.under_way()}}}};
  mqtt::Properties properties;
  properties.add_byte(MQTT_PROP_PAYLOAD_FORMAT_INDICATOR, 1);
  properties.add_text(MQTT_PROP_CONTENT_TYPE, "application/json");
  (void)link_.publish(topic("metrics"), json_line(metrics), 0, false, properties);
}

// ---- Down ----

void Bridge::bus_changed(bool connected) {
  if (!connected) requests_.fail_all();
}

void Bridge::arrived(const mosquitto_message &message, const mosquitto_property *properties) {
  ReplyTo to{mqtt::text_property(properties, MQTT_PROP_RESPONSE_TOPIC).value_or(""),
             mqtt::bytes_property(properties, MQTT_PROP_CORRELATION_DATA).value_or("")};
  // Without a topic for the answer, nobody would learn what became of the request.
  if (!may_answer_to(to.topic, base_) || to.correlation.size() > kLongestCorrelation ||
      answers_.size() >= kMostAnswers) {
    ++unanswerable_;
    return;
  }
  requests_.take(
      {message.topic,
       {static_cast<const char *>(message.payload), static_cast<size_t>(message.payloadlen)}},
      std::move(to));
}

void Bridge::answer(const ReplyTo &to, AnswerStatus status, const std::string &payload) {
  mqtt::Properties properties;
  properties.add_byte(MQTT_PROP_PAYLOAD_FORMAT_INDICATOR, 1);
  properties.add_text(MQTT_PROP_CONTENT_TYPE, "application/json");
  if (!to.correlation.empty()) properties.add_bytes(MQTT_PROP_CORRELATION_DATA, to.correlation);
  properties.add_user("status", std::to_string(static_cast<int>(status)));
  const Link::Sent sent = link_.publish(to.topic, payload, 1, false, properties);
  if (sent.error == MOSQ_ERR_SUCCESS) answers_.insert(sent.id);
}

}  // namespace msgbridge
