// The files of page/, compiled in.
#pragma once

#include <string_view>

namespace inspector {

extern const std::string_view kPageHtml;
extern const std::string_view kPageCss;
extern const std::string_view kPageJs;

}  // namespace inspector
