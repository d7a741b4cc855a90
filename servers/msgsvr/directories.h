// The directory of the files that carry large bodies.
#pragma once

namespace msgsvr {

// Makes it when it is missing: for the group "msgapi" where the system has that, otherwise for the
// server's own user alone. Logs what keeps applications from using it.
void prepare_body_directory();

}  // namespace msgsvr
