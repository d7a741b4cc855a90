// What the gate (gate.h) keeps with each client.
#pragma once

#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "policy/policy.h"

namespace msgsvr {

struct Passport {
  std::optional<policy::Who> who;  // set when it is first needed
  // Answers about its messages and about events for it, valid while the gate's epoch is this one.
  uint64_t epoch = 0;
  std::unordered_map<uint64_t, bool> answers;
  uint64_t generation = 0;     // of the policy whose rules these are
  std::vector<uint64_t> told;  // that the log has named
  uint64_t foreign = 0;        // its messages under another sender than itself
};

}  // namespace msgsvr
