// Takes personal data out of a message's body before it is shown or stored.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace traffic {

// Masks in place, so lengths and positions stay:
// - addresses, serial numbers and UUIDs anywhere, as the library masks them in logs;
// - DM items and members of JSON objects by their names: secrets (passwords, keys) whole, personal
//   values (accounts, SSIDs, a subscriber's numbers) except for their first and last character.
//   With an array or an object everything in it is masked;
// - name=value in texts, up to the first blank unless the value is in quotes;
// - JSON in strings of JSON; what is wrapped more than eight times is hidden whole.
// `cut`: the body goes on beyond these bytes, so what looks like the beginning of an address at
// their end is hidden, too.
void mask_body(std::span<char> body, bool cut);

// The same for a text that is not a body, for example a path.
std::string masked(std::string_view text);

// What a name says about its value; a later one hides more. Names are compared by their words,
// without case.
enum class Care { kNone, kPersonal, kSecret };
Care care_of(std::string_view name);

// Masks the value of a member or an item whose name says `care`. Whole characters are masked, so
// UTF-8 stays UTF-8.
std::string masked_value(Care care, std::string_view value);

}  // namespace traffic
