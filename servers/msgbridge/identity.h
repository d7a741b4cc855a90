// The name by which the fleet knows this gateway.
#pragma once

#include <string>

#include "msgbridge/config.h"

namespace msgbridge {

inline constexpr const char *kMachineId = "/etc/machine-id";

// From the configuration, or from the item of equipment data that it names, or else made of the
// machine's id, which itself stays secret. Throws std::runtime_error when there is no name.
std::string gateway_name(const Config &config, const std::string &machine_id = kMachineId);

}  // namespace msgbridge
