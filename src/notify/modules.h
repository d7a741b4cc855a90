// The modules of the device and their ids.
#pragma once

#include <cstdint>

namespace msgapi::notify {

bool is_module_id(uint32_t id);

// The id of an application that becomes a notify client by its name, 0 for every other.
uint32_t client_id(const char *name);

}  // namespace msgapi::notify
