#include "msgbridge/config.h"

#include <algorithm>
#include <stdexcept>

#include "msgapi/event.h"
#include "msgapi/msg.h"
#include "msgapi/path.h"
#include "msgapi/restful.h"

namespace msgbridge {
namespace {

using catalogue::allow;
using catalogue::expect_object;
using catalogue::fail;
using catalogue::JsonValue;
using catalogue::number_in;
using catalogue::optional_text;
using catalogue::required;
using catalogue::shown;
using catalogue::text_in;
using catalogue::truth_in;

constexpr std::string_view kUsualTopic = "{prefix}/{gateway}/event/{module}/{event}";
constexpr uint64_t kDay_ms = uint64_t{24} * 60 * 60 * 1000;
// The fleet's tool gets its answers below PREFIX/answers, so no gateway may have this name.
constexpr std::string_view kAnswers = "answers";

template <typename Number>
void set_number(const JsonValue &object, std::string_view name, Number *number, uint64_t least,
                uint64_t most) {
  if (const JsonValue *value = object.member(name)) {
    *number = static_cast<Number>(number_in(*value, name, least, most));
  }
}

void set_truth(const JsonValue &object, std::string_view name, bool *truth) {
  if (const JsonValue *value = object.member(name)) *truth = truth_in(*value, name);
}

void set_text(const JsonValue &object, std::string_view name, std::string *text) {
  if (const std::string_view value = optional_text(object, name); !value.empty()) *text = value;
}

const std::vector<JsonValue> &list_in(const JsonValue &value, const std::string &name) {
  if (value.kind != JsonValue::Kind::kList) fail(value, "'" + name + "' must be a list");
  return value.items;
}

// Runs `make`. Its std::invalid_argument becomes an error at `value`'s place in the file.
template <typename Make>
auto made_of(const JsonValue &value, Make make) {
  try {
    return make();
  } catch (const std::invalid_argument &error) {
    fail(value, error.what());
  }
}

void read_tls(const JsonValue &value, Config *config) {
  expect_object(value, "'tls'");
  allow(value, {"ca", "certificate", "key", "verify"});
  set_text(value, "ca", &config->tls.ca);
  set_text(value, "certificate", &config->tls.certificate);
  set_text(value, "key", &config->tls.key);
  set_truth(value, "verify", &config->tls.verify);
  if (config->tls.certificate.empty() != config->tls.key.empty()) {
    fail(value, "'certificate' and 'key' belong together");
  }
  if (std::ranges::none_of(config->brokers, [](const auto &each) { return each.tls; })) {
    fail(value, "'tls' is for addresses that begin with mqtts://");
  }
}

void read_broker(const JsonValue &value, Config *config) {
  expect_object(value, "'broker'");
  allow(value,
        {"addresses", "client_id", "credentials", "tls", "keep_alive_s", "in_flight", "reconnect"});
  const JsonValue &addresses = required(value, "addresses");
  for (const JsonValue &each : list_in(addresses, "addresses")) {
    const std::string_view text = text_in(each, "addresses");
    config->brokers.push_back(made_of(each, [text] { return mqtt::read_address(text); }));
  }
  if (config->brokers.empty()) fail(addresses, "'addresses' must name a broker");
  set_text(value, "client_id", &config->client_id);
  set_text(value, "credentials", &config->credentials);
  set_number(value, "keep_alive_s", &config->keep_alive_s, 5, 65535);
  set_number(value, "in_flight", &config->in_flight, 1, 1000);
  if (const JsonValue *tls = value.member("tls")) read_tls(*tls, config);
  if (const JsonValue *reconnect = value.member("reconnect")) {
    expect_object(*reconnect, "'reconnect'");
    allow(*reconnect, {"least_ms", "most_ms"});
    set_number(*reconnect, "least_ms", &config->reconnect.least_ms, 10, kDay_ms);
    set_number(*reconnect, "most_ms", &config->reconnect.most_ms, 10, kDay_ms);
    if (config->reconnect.least_ms > config->reconnect.most_ms) {
      fail(*reconnect, "'least_ms' is more than 'most_ms'");
    }
  }
}

UpRule up_rule_in(const JsonValue &value) {
  expect_object(value, "a rule of 'up'");
  allow(value, {"module", "event", "payload", "send", "topic", "qos", "retain", "per_second",
                "one_in", "mask"});
  const JsonValue *topic = value.member("topic");
  const std::string_view text = topic == nullptr ? kUsualTopic : text_in(*topic, "topic");
  UpRule rule{
      .module = "*",
      .event = "*",
      .payload = {},
      .topic = made_of(topic == nullptr ? value : *topic, [text] { return TopicTemplate(text); })};
  set_text(value, "module", &rule.module);
  if (rule.module.find_first_of("*?|") == std::string::npos &&
      ORP_EVT_GetMsgTypeByEventModuleName(rule.module.c_str()) == ORP_MSG_ALL_EVENTS) {
    fail(*value.member("module"), "no events are known of the module '" + shown(rule.module) + "'");
  }
  set_text(value, "event", &rule.event);
  if (const JsonValue *payload = value.member("payload")) {
    expect_object(*payload, "'payload'");
    for (size_t i = 0; i < payload->names.size(); ++i) {
      rule.payload.emplace_back(payload->names[i],
                                text_in(payload->items[i], shown(payload->names[i])));
    }
  }
  set_truth(value, "send", &rule.send);
  set_number(value, "qos", &rule.qos, 0, 2);
  set_truth(value, "retain", &rule.retain);
  set_number(value, "per_second", &rule.per_second, 1, 1'000'000);
  set_number(value, "one_in", &rule.one_in, 1, 1'000'000);
  set_truth(value, "mask", &rule.mask);
  return rule;
}

RestRule rest_rule_in(const JsonValue &value) {
  expect_object(value, "an entry of 'rest'");
  allow(value, {"method", "path", "mask"});
  RestRule rule{0, std::string(text_in(required(value, "path"), "path"))};
  if (!rule.path.starts_with('/')) fail(*value.member("path"), "'path' begins with /");
  if (const JsonValue *method = value.member("method")) {
    const auto *known = std::ranges::find(kMethods, text_in(*method, "method"), &Method::word);
    if (known == std::end(kMethods)) {
      fail(*method, "'method' must be get, post, put, delete or patch");
    }
    rule.code = known->code;
  }
  set_truth(value, "mask", &rule.mask);
  return rule;
}

CallRule call_rule_in(const JsonValue &value, const catalogue::Catalogue &types,
                      uint32_t timeout_ms) {
  expect_object(value, "an entry of 'calls'");
  allow(value, {"app", "type", "timeout_ms", "mask"});
  const JsonValue &app = required(value, "app");
  CallRule rule{std::string(text_in(app, "app")), 0, timeout_ms};
  if (rule.app.size() >= ORP_APP_NAME_SIZE || rule.app == "mic" ||
      rule.app.find_first_of("/+#") != std::string::npos) {
    fail(app, "'app' must be an application: up to 11 characters, not the message server");
  }
  const JsonValue &type = required(value, "type");
  std::optional<uint64_t> number = type.number;
  if (type.kind != JsonValue::Kind::kNumber) number = types.number_of(text_in(type, "type"));
  if (!number || *number == 0 || *number > ORP_MSG_TYPE_MASK) {
    fail(type, "'type' must be a message type by its name or number; 'msgctl types' lists them");
  }
  rule.type = static_cast<uint32_t>(*number);
  if (is_reserved_type(rule.type)) {
    fail(type, catalogue::describe(rule.type) +
                   " is a type of the library and the servers, which nobody outside may use");
  }
  if (const catalogue::MessageType *known = types.find(rule.type)) {
    if (!known->answer) fail(type, types.describe(rule.type) + " is not answered by anybody");
    if (known->timeout_ms != 0) rule.timeout_ms = known->timeout_ms;
  }
  set_number(value, "timeout_ms", &rule.timeout_ms, 1, 600'000);
  set_truth(value, "mask", &rule.mask);
  return rule;
}

void read_down(const JsonValue &value, const catalogue::Catalogue &types, DownRules *down) {
  expect_object(value, "'down'");
  allow(value, {"rest", "calls", "in_flight", "largest", "timeout_ms"});
  set_number(value, "in_flight", &down->in_flight, 1, 1000);
  set_number(value, "largest", &down->largest, 1, 512 << 10);
  set_number(value, "timeout_ms", &down->timeout_ms, 1, 600'000);
  if (const JsonValue *rest = value.member("rest")) {
    for (const JsonValue &each : list_in(*rest, "rest")) down->rest.push_back(rest_rule_in(each));
  }
  if (const JsonValue *calls = value.member("calls")) {
    for (const JsonValue &each : list_in(*calls, "calls")) {
      down->calls.push_back(call_rule_in(each, types, down->timeout_ms));
    }
  }
}

void read_spool(const JsonValue &value, SpoolOptions *spool) {
  expect_object(value, "'spool'");
  allow(value, {"path", "bytes", "age_s", "per_second", "commit_ms", "sync", "reserve"});
  set_text(value, "path", &spool->path);
  if (!spool->path.starts_with('/')) fail(*value.member("path"), "'path' begins with /");
  set_number(value, "bytes", &spool->bytes, 64 << 10, uint64_t{1} << 32);
  set_number(value, "age_s", &spool->age_s, 1, uint64_t{366} * 24 * 60 * 60);
  set_number(value, "per_second", &spool->per_second, 0, 1'000'000);
  set_number(value, "commit_ms", &spool->commit_ms, 1, 10'000);
  set_truth(value, "sync", &spool->sync);
  set_truth(value, "reserve", &spool->reserve);
}

void read_names(const JsonValue &root, Config *config) {
  set_text(root, "prefix", &config->prefix);
  if (!mqtt::is_topic(config->prefix) || config->prefix.ends_with('/') ||
      config->prefix.size() > 200) {
    fail(*root.member("prefix"),
         "'prefix' must be levels of a topic: not $, + or #, no / at its "
         "end, and at most 200 bytes");
  }
  set_text(root, "gateway", &config->gateway);
  if (config->gateway == kAnswers) {
    fail(*root.member("gateway"), "'gateway' must not be 'answers', where answers are sent to");
  }
  set_number(root, "gateway_item", &config->gateway_item, 1, UINT32_MAX);
  if (!config->gateway.empty() && config->gateway_item != 0) {
    fail(*root.member("gateway_item"), "there is a 'gateway' already");
  }
}

}  // namespace

bool matches(const std::string &pattern, const std::string &text) {
  return ORP_UTIL_MatchPrefixPath(pattern.c_str(), text.c_str()) == 1;
}

bool is_reserved_type(uint32_t type) {
  return type >> 8 == ORP_MSG_EVENT_PAGE || catalogue::find(type) != nullptr;
}

Config read_config(std::string_view text, const catalogue::Catalogue &types) {
  const JsonValue root = catalogue::read_json(text);
  expect_object(root, "the configuration");
  allow(root, {"broker", "prefix", "gateway", "gateway_item", "up", "down", "spool", "metrics_s"});
  Config config;
  read_broker(required(root, "broker"), &config);
  read_names(root, &config);
  if (const JsonValue *up = root.member("up")) {
    for (const JsonValue &each : list_in(*up, "up")) config.up.push_back(up_rule_in(each));
  }
  if (const JsonValue *down = root.member("down")) read_down(*down, types, &config.down);
  if (const JsonValue *spool = root.member("spool")) read_spool(*spool, &config.spool);
  set_number(root, "metrics_s", &config.metrics_s, 1, uint64_t{24} * 60 * 60);
  return config;
}

}  // namespace msgbridge
