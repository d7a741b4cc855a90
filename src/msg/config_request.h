// What the device helpers above share with the requests to the configuration manager.
#pragma once

#include <cstdint>

namespace msgapi::msg {

// Asks the server to reboot the device; the status of the send.
uint32_t request_reboot(uint32_t mode);

}  // namespace msgapi::msg
