// Message types that applications describe in files of their own; docs/message-types.md has the
// format.
#pragma once

#include <deque>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue/json_file.h"
#include "catalogue/message_types.h"

namespace catalogue {

// Where the files are: first those of packages, then those of the device, which replace a file of
// the same name.
inline constexpr std::string_view kTypeDirectories[] = {"/usr/share/msgapi/messages.d",
                                                        "/etc/msgapi/messages.d"};

// The types of the library and the servers, and those that were added. References into it are valid
// as long as it lives.
class Catalogue {
 public:
  Catalogue();
  Catalogue(const Catalogue &) = delete;
  Catalogue &operator=(const Catalogue &) = delete;

  // Adds the types that `text` describes, all or none. The problem names `file`.
  std::optional<Problem> add(std::string_view text, std::string_view file);

  // Adds the files "*.json" of the directories, in the order of their names. Skips a file with a
  // problem. A directory may be missing.
  std::vector<Problem> load(std::span<const std::string_view> directories = kTypeDirectories);

  std::span<const MessageType> types() const { return types_; }
  const MessageType *find(uint32_t type) const { return catalogue::find(type, types_); }
  std::string describe(uint32_t type) const { return catalogue::describe(type, types_); }
  std::optional<uint32_t> number_of(std::string_view text) const {
    return catalogue::number_of(text, types_);
  }

 private:
  std::vector<MessageType> types_;
  std::deque<std::string> texts_;  // to which the added types point
};

}  // namespace catalogue
