// Validation of a path by type, for internal users who go on with the resolved path.
#pragma once

#include <climits>
#include <cstdint>

namespace msgapi::path {

// The type of files that hand over message bodies.
constexpr uint32_t kHandOverType = 20;

struct Resolved {
  char text[PATH_MAX + 1];
};

// Resolves `path` (not null) into `resolved` and says whether `type` allows it there. The contents
// of `resolved` mean nothing otherwise.
bool validate(const char *path, uint32_t type, Resolved *resolved);

}  // namespace msgapi::path
