// Lines of the module logs, beside the traffic.
#pragma once

#include <cstddef>
#include <string>

#include "inspector/summary.h"

namespace inspector {

// {"lines": [{"at_us", "module", "level", "text"}, ...], "more", "problems": [text, ...]}: the
// newest `most` lines of the range, the oldest first. Only lines of this boot, because the time of
// earlier ones is not known. `more`: the range has older ones.
Json log_lines(const std::string &directory, const Range &range, size_t most);

}  // namespace inspector
