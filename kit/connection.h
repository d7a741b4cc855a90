// Whether the message server is there.
#pragma once

namespace msgkit {

bool is_connected();

}  // namespace msgkit
