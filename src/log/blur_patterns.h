// Finders of personal data, equal to POSIX matching (leftmost, then longest) of the expressions in
// msgapi/blur.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace msgapi::blur {

enum class Pattern : uint8_t { kMac, kIpv4, kSerial, kUuid, kHwaddr, kUuidTail, kIpv6 };

struct Match {
  size_t start = 0;
  size_t length = 0;  // 0: there is none
};

// The first match of `pattern` in `text` that begins at `from` or after it. Nothing before `from`
// is looked at.
Match find(Pattern pattern, std::string_view text, size_t from);

}  // namespace msgapi::blur
