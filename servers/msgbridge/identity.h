// By what name the fleet knows this gateway.
#pragma once

#include <string>

#include "msgbridge/config.h"

namespace msgbridge {

// The configuration's; or the item of equipment data that it names; or made of /etc/machine-id,
// which itself is nobody else's business. Throws std::runtime_error when there is none.
std::string gateway_name(const Config &config);

}  // namespace msgbridge
