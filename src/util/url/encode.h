// URI escaping, for the URL parser and the encoder's own entry point.
#pragma once

#include <string_view>

#include "base/memory.h"

namespace msgapi::url {

// A new escaped text ("/" for empty `path`), or null when it is too long or without memory.
Owned<char> escape_uri(std::string_view path);

}  // namespace msgapi::url
