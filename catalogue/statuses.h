// The catalogue of statuses: a name and a sentence for every number that a public function returns.
//
// Several families of functions give the same numbers different meanings. So a number is looked up
// in the family of the function that returned it. Families that hand on statuses of the message
// layer or the configuration store fall back on those.
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

// The number's meanings in all families that have it, for those who know only the number.
std::vector<StatusNumber> meanings(int64_t number);

// The number as text: hexadecimal from 0x10000 on, where most families begin to count, else
// decimal.
std::string status_text(int64_t number);

// For people: "ORP_ERR_TIMEOUT (0x10005): what was waited for did not come in time", or the number
// alone.
std::string describe_status(int64_t number, StatusFamily family = StatusFamily::kMessages);

// The number of a status that is given by its name or as a number ("0x10005", "65541", "-2").
std::optional<int64_t> status_number_of(std::string_view text);

// "messages", "store" and so on.
std::string_view family_word(StatusFamily family);

}  // namespace catalogue
