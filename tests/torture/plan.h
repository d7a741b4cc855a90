// Shared by the driver and the preloaded shim, in memory that both map.
#pragma once

#include <atomic>
#include <cstdint>

namespace torture {

// The environment variable with the path of the plan, for a program that is started with the shim.
// If the plan is armed by then, its calls are counted from the first one on.
inline constexpr const char *kPlanVariable = "TORTURE_PLAN";

struct Plan {
  // Set by the driver.
  std::atomic<uint32_t> armed;  // calls are counted and may fail
  uint32_t nth;                 // the call that fails, from 1; 0: none
  uint32_t variant;             // how it fails: the number of the way, modulo that call's variants

  // Set by the shim.
  std::atomic<uint32_t> count;   // calls while armed
  std::atomic<uint32_t> struck;  // 1 as soon as the nth call has failed
  uint32_t variants;             // how many ways that call has to fail
  int32_t error;                 // its errno; -1: it did only a part
  char call[24];                 // its name
  char caller[120];              // object and offset in it, for addr2line

  // Set by the driver's child: what it owns at its end if nothing has failed.
  uint32_t usual_descriptors;
  int32_t usual_blocks;
};

// A function of the shim, found with dlsym(3): makes it use `plan` from now on.
using Attach = void(Plan *plan);
inline constexpr const char *kAttach = "torture_attach";
// Another one: the number of memory blocks that the process has.
using Blocks = int32_t();
inline constexpr const char *kBlocks = "torture_blocks";

}  // namespace torture
