// The kernel versions that the platform tells apart.
#pragma once

#include <cstdint>
#include <string_view>

namespace msgapi::msg {

// What ORP_UTIL_GetLinuxVersion answers for a release text.
uint32_t linux_version(std::string_view release);

}  // namespace msgapi::msg
