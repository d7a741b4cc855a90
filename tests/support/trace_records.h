// The library's trace records. The program must be linked with --wrap=ORP_TRACE_PrintInfo.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace test {

// The records that `action` makes and that have `part` in their text: "FUNCTION CATEGORY LEVEL:
// TEXT".
std::vector<std::string> trace_records(std::string_view part, const std::function<void()> &action);

}  // namespace test
