// Takes personal data out of a message's body before it is shown or stored.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace traffic {

// Masks in place, so that lengths and positions stay: addresses, serial numbers and UUIDs as the
// library masks them in logs, wherever they stand; the values of DM items and of members of JSON
// objects whose names say that they are personal (accounts, SSIDs, numbers of a subscriber) but for
// their first and last character; secrets (passwords, keys) whole; with an array or an object all
// that is in it. The same for name=value in a text, up to the first blank where there are no
// quotes, and for JSON in a text of JSON; what is wrapped more than eight times is hidden whole.
// `cut`: the body goes on beyond these bytes, so what looks like the beginning of an address at
// their end goes too.
void mask_body(std::span<char> body, bool cut);

// The same for a text that is not a body, a path say.
std::string masked(std::string_view text);

// What a name says about its value, the least first. Names are compared without case, by the words
// in them.
enum class Care { kNone, kPersonal, kSecret };
Care care_of(std::string_view name);

// The same for the value of a member or an item whose name says that. Whole UTF-8 characters are
// masked, so that what was UTF-8 stays that.
std::string masked_value(Care care, std::string_view value);

}  // namespace traffic
