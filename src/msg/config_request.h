// What the device helpers share with the requests to the configuration manager.
#pragma once

#include <cstdint>

#include "base/status.h"

namespace msgapi::msg {

// Asks the server to reboot the device.
Status request_reboot(uint32_t mode);

}  // namespace msgapi::msg
