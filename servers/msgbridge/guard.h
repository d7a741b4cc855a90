// What C libraries call: an exception must not go through their frames.
#pragma once

#include <exception>

#include "msgbridge/say.h"

namespace msgbridge {

// False when `procedure` threw, which is logged as what it was about.
template <typename Procedure>
bool guarded(const char *what, Procedure &&procedure) noexcept {
  try {
    procedure();
    return true;
  } catch (const std::exception &error) {
    // Without memory to be asked for.
    mlog_print(kName, MLOG_LEVEL_ERROR, "%s failed: %s.", what, error.what());
  } catch (...) {
    mlog_print(kName, MLOG_LEVEL_ERROR, "%s failed.", what);
  }
  return false;
}

}  // namespace msgbridge
