// The secret in the inspector's address.
#pragma once

#include <string>

namespace inspector {

inline constexpr const char *kTokenPath = "/var/run/msginspect.token";

// The token in the file at `path`, or a new one that is put there, so that pages find the inspector
// again after it was started anew. A file that others may read, or that is not ours, is not
// believed and not touched: `*warning` then says so, and the token is of this start only. "" for
// the path: always a new one.
std::string token_of(const std::string &path, std::string *warning);

}  // namespace inspector
