// The catalogue of statuses: for every number by which a public function says how it went, its name
// and a sentence.
//
// Several families of functions use the same numbers with meanings of their own. So a number is
// looked up in the family of the function that returned it; families that hand on what the message
// layer or the configuration store returned to them fall back on those.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue/status_table.h"

namespace catalogue {

// All of them, family by family.
std::span<const StatusNumber> statuses();

// What the number means in every family that has it, for somebody who has nothing but the number.
std::vector<StatusNumber> meanings(int64_t number);

// In hexadecimal digits from 0x10000 on, where most families begin to count; as a decimal number
// below that.
std::string status_text(int64_t number);

// For people: "ORP_ERR_TIMEOUT (0x10005): what was waited for did not come in time", or the number
// alone.
std::string describe_status(int64_t number, StatusFamily family = StatusFamily::kMessages);

// The number of a status that is given by its name or as a number ("0x10005", "65541", "-2").
std::optional<int64_t> status_number_of(std::string_view text);

// "messages", "store" and so on.
std::string_view family_word(StatusFamily family);

}  // namespace catalogue
