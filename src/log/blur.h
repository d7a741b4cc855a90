// Blurring with a length, for text that need not be followed by a NUL.
#pragma once

#include <cstddef>
#include <span>

namespace msgapi::blur {

// What MlogBlurString() and MlogBlurIpv6String() do together, on the characters before the first
// NUL in `text`. Nothing outside it is read.
void blur_log_text(std::span<char> text);

}  // namespace msgapi::blur
