// What the driver and the preloaded shim tell each other, in memory that both map.
#pragma once

#include <atomic>
#include <cstdint>

namespace torture {

// The variable that names the file with the plan of a program that is started with the shim; its
// calls are counted from its first one on if the plan is armed then.
inline constexpr const char *kPlanVariable = "TORTURE_PLAN";

struct Plan {
  // Set by the driver.
  std::atomic<uint32_t> armed;  // calls are counted and may fail
  uint32_t nth;                 // the call that fails, from 1; 0: none
  uint32_t variant;             // how: an index into what can befall that call, modulo their number

  // Set by the shim.
  std::atomic<uint32_t> count;   // calls while armed
  std::atomic<uint32_t> struck;  // 1 as soon as the nth call has failed
  uint32_t variants;             // how many ways that call has to fail
  int32_t error;                 // its errno; -1: it did less than it was asked for
  char call[24];                 // its name
  char caller[120];              // object and offset in it, for addr2line
};

// A function of the shim, found with dlsym(): it uses `plan` from now on.
using Attach = void(Plan *plan);
inline constexpr const char *kAttach = "torture_attach";
// And another: how many blocks of memory the process has.
using Blocks = int32_t();
inline constexpr const char *kBlocks = "torture_blocks";

}  // namespace torture
