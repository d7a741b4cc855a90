// For procedures that C libraries call: no exception may pass through their frames.
#pragma once

#include <exception>

#include "msgbridge/say.h"

namespace msgbridge {

// Runs `procedure`. False when it threw, which is logged as "`what` failed".
template <typename Procedure>
bool guarded(const char *what, Procedure &&procedure) noexcept {
  try {
    procedure();
    return true;
  } catch (const std::exception &error) {
    // mlog_print() allocates nothing: memory may be short.
    mlog_print(kName, MLOG_LEVEL_ERROR, "%s failed: %s.", what, error.what());
  } catch (...) {
    mlog_print(kName, MLOG_LEVEL_ERROR, "%s failed.", what);
  }
  return false;
}

}  // namespace msgbridge
