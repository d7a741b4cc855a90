#include "msgbridge/upward.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "msgapi/event.h"
#include "msgbridge/json_text.h"

namespace msgbridge {
namespace {

struct Free {
  void operator()(void *block) const { std::free(block); }
};

std::string member_text(const Json &object, const std::string &name) {
  const auto member = object.find(name);
  if (member == object.end()) return "";
  return member->is_string() ? member->get<std::string>() : json_line(*member);
}

bool payload_matches(const UpRule &rule, const Json &event) {
  if (rule.payload.empty()) return true;
  const auto payload = event.find("Payload");
  if (payload == event.end() || !payload->is_object()) return false;
  return std::ranges::all_of(rule.payload, [&](const auto &each) {
    return payload->contains(each.first) && matches(each.second, member_text(*payload, each.first));
  });
}

// Makes of a DM body the JSON that subscribers of other events get.
std::optional<std::string> convert(uint32_t type, std::string_view body) {
  const std::unique_ptr<ORP_MSG_HEADER_ST, Free> message(
      static_cast<ORP_MSG_HEADER_ST *>(std::calloc(1, ORP_MSG_HEADER_SIZE + body.size())));
  if (!message) return std::nullopt;
  message->ulMsgType = type;
  message->ulDataLen = static_cast<uint32_t>(body.size());
  std::memcpy(message.get() + 1, body.data(), body.size());
  char *text = nullptr;
  const uint32_t status = ORP_EVT_GetEventContent(message.get(), &text, nullptr);
  const std::unique_ptr<char, Free> owner(text);
  if (status != ORP_EVT_OK) return std::nullopt;
  return text;
}

// The text of an event: made of `data` where that is a publisher's DM body, else `data` up to its
// first NUL. The text need not be JSON.
std::string event_text(uint32_t type, std::string_view data) {
  if (type < ORP_MSG_FIRST_JSON_EVENT) {
    if (auto text = convert(type, data)) return std::move(*text);
  }
  return std::string(data.substr(0, data.find('\0')));
}

}  // namespace

Upward::Upward(std::vector<UpRule> rules, std::string prefix, std::string gateway)
    : rules_(std::move(rules)), prefix_(std::move(prefix)), gateway_(std::move(gateway)) {
  for (const UpRule &rule : rules_) {
    limiters_.push_back({TokenBucket(rule.per_second, rule.per_second)});
  }
}

bool Upward::passes(const UpRule &rule, Limiter *limiter, int64_t now_ms) {
  if (rule.one_in > 1 && limiter->skipped++ % rule.one_in != 0) {
    ++counters_.sampled;
    return false;
  }
  if (!limiter->bucket.takes(now_ms)) {
    ++counters_.limited;
    return false;
  }
  return true;
}

std::optional<Event> Upward::take(uint32_t type, std::string_view data, const Spool::Now &now) {
  std::string text = event_text(type, data);
  std::optional<Json> json = parse_json(text);
  if (!json || !json->is_object()) {
    ++counters_.unreadable;
    return std::nullopt;
  }
  const char *known = ORP_EVT_GetEventModuleNameByEventType(type);
  const std::string module = known != nullptr ? known : member_text(*json, "Module");
  const std::string event = member_text(*json, "EventType");
  const auto rule = std::ranges::find_if(rules_, [&](const UpRule &each) {
    return matches(each.module, module) && matches(each.event, event) &&
           payload_matches(each, *json);
  });
  if (rule == rules_.end() || !rule->send) {
    ++counters_.no_rule;
    return std::nullopt;
  }
  Limiter *limiter = &limiters_[static_cast<size_t>(rule - rules_.begin())];
  if (!passes(*rule, limiter, now.boot_ms)) return std::nullopt;

  ++counters_.taken;
  if (rule->mask) {
    mask_json(&*json);
    // What was looked at goes up: of members of one name the text holds others, too.
    text = json_line(*json);
  }
  return Event{.boot = now.boot,
               .wall_ms = now.wall_ms,
               .topic = rule->topic.expand({prefix_, gateway_, module, event}),
               .payload = std::move(text),
               .qos = rule->qos,
               .retain = rule->retain};
}

std::vector<uint32_t> Upward::types() const {
  std::vector<uint32_t> types;
  for (const UpRule &rule : rules_) {
    if (!rule.send) continue;
    const uint32_t type = ORP_EVT_GetMsgTypeByEventModuleName(rule.module.c_str());
    if (type == ORP_MSG_ALL_EVENTS) return {};
    if (std::ranges::count(types, type) == 0) types.push_back(type);
  }
  return types;
}

bool Upward::wants_any() const {
  return std::ranges::any_of(rules_, &UpRule::send);
}

}  // namespace msgbridge
