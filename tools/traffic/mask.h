// Takes personal data out of a message's body before it is shown or stored.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace traffic {

// Masks in place, so that lengths and positions stay: addresses, serial numbers and UUIDs as the
// library masks them in logs, wherever they stand; the values of DM items and of members of JSON
// objects whose names say that they are personal (accounts, SSIDs, numbers of a subscriber) but for
// their first and last character; secrets (passwords, keys) whole. `cut`: the body goes on beyond
// these bytes, so what looks like the beginning of an address at their end goes too.
void mask_body(std::span<char> body, bool cut);

// The same for a text that is not a body, a path say.
std::string masked(std::string_view text);

// The same for the value of a member or an item called `name`. Whole UTF-8 characters are masked,
// so that what was UTF-8 stays that.
std::string masked_value(std::string_view name, std::string_view value);

}  // namespace traffic
