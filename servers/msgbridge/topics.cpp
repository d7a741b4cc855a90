#include "msgbridge/topics.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "common/printable.h"
#include "mqtt/address.h"

namespace msgbridge {
namespace {

constexpr size_t kLongestLevel = 512;
constexpr std::string_view kEscaped = "/+#%";

}  // namespace

std::string topic_level(std::string_view text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  if (text.empty()) return "-";
  std::string level;
  while (!text.empty()) {
    size_t length = servers::printable_length(text);
    if (length == 1 && kEscaped.find(text[0]) != kEscaped.npos) length = 0;
    std::string next;
    if (length == 0) {
      const auto byte = static_cast<unsigned char>(text[0]);
      next = {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    } else {
      next = text.substr(0, length);
    }
    if (level.size() + next.size() > kLongestLevel) break;
    level += next;
    text.remove_prefix(std::max<size_t>(length, 1));
  }
  return level;
}

TopicTemplate::TopicTemplate(std::string_view text) {
  constexpr std::array<std::pair<std::string_view, Kind>, 4> kNames{{{"{prefix}", Kind::kPrefix},
                                                                     {"{gateway}", Kind::kGateway},
                                                                     {"{module}", Kind::kModule},
                                                                     {"{event}", Kind::kEvent}}};
  std::string_view rest = text;
  while (!rest.empty()) {
    const size_t brace = std::min(rest.find_first_of("{}"), rest.size());
    if (brace > 0) parts_.push_back({Kind::kText, std::string(rest.substr(0, brace))});
    rest.remove_prefix(brace);
    if (rest.empty()) break;
    const auto *name = std::ranges::find_if(
        kNames, [rest](const auto &each) { return rest.starts_with(each.first); });
    if (name == kNames.end()) {
      throw std::invalid_argument(
          "a topic has {prefix}, {gateway}, {module} and {event} in braces, and nothing else");
    }
    parts_.push_back({name->second, ""});
    rest.remove_prefix(name->first.size());
  }
  if (!mqtt::is_topic(expand({"p", "g", "m", "e"}))) {
    throw std::invalid_argument(
        "no events can be sent to this topic: it is empty, begins with $, or "
        "holds + or #");
  }
}

std::string TopicTemplate::expand(const TopicValues &values) const {
  std::string topic;
  for (const Part &part : parts_) {
    switch (part.kind) {
      case Kind::kText:
        topic += part.text;
        break;
      case Kind::kPrefix:
        topic += values.prefix;
        break;
      case Kind::kGateway:
        topic += topic_level(values.gateway);
        break;
      case Kind::kModule:
        topic += topic_level(values.module);
        break;
      case Kind::kEvent:
        topic += topic_level(values.event);
        break;
    }
  }
  return topic;
}

}  // namespace msgbridge
