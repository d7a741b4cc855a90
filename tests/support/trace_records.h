// What the library traces. The program is linked with --wrap=ORP_TRACE_PrintInfo.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace test {

// The records with `part` in their text that `action` makes: "FUNCTION CATEGORY LEVEL: TEXT".
std::vector<std::string> trace_records(std::string_view part, const std::function<void()> &action);

}  // namespace test
