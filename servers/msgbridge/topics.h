// Topics of events, made from a template.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace msgbridge {

// `text` as one level of a topic. "/", "+", "#", "%", control characters and bytes that are no
// UTF-8 become "%2F" and so on, which a receiver can undo. "-" for an empty text. At most 512
// bytes.
std::string topic_level(std::string_view text);

struct TopicValues {
  std::string_view prefix;
  std::string_view gateway;
  std::string_view module;
  std::string_view event;
};

// "{prefix}/{gateway}/event/{module}/{event}": values replace the names in braces. Each value
// becomes one level, except the prefix, which may have several.
class TopicTemplate {
 public:
  // Throws std::invalid_argument that says what is wrong.
  explicit TopicTemplate(std::string_view text);

  std::string expand(const TopicValues &values) const;

 private:
  enum class Kind { kText, kPrefix, kGateway, kModule, kEvent };
  struct Part {
    Kind kind;
    std::string text;
  };
  std::vector<Part> parts_;
};

}  // namespace msgbridge
