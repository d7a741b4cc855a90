// The directory of hand-over files.
#pragma once

namespace msgsvr {

// Makes the directory when it is missing: for the group "msgapi" if the system has it, otherwise
// for the server's own user alone. Logs why applications cannot use it, if they cannot.
void prepare_body_directory();

}  // namespace msgsvr
