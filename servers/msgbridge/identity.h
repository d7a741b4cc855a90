// The name by which the fleet knows this gateway.
#pragma once

#include <string>

#include "msgbridge/config.h"

namespace msgbridge {

// From the configuration, or from the item of equipment data that it names, or else made of
// /etc/machine-id, which itself stays secret. Throws std::runtime_error when there is no name.
std::string gateway_name(const Config &config);

}  // namespace msgbridge
