// The secret in the inspector's address.
#pragma once

#include <string>

namespace inspector {

inline constexpr const char *kTokenPath = "/var/run/msginspect.token";

// The token in the file at `path`, or a new one that is written there, so that open pages find the
// inspector again after a restart. A file that others may read, or that is not ours, is neither
// believed nor changed: `*warning` says so, and the token holds for this start only. Without a path
// ("") the token is always new.
std::string token_of(const std::string &path, std::string *warning);

}  // namespace inspector
