// Clients as the message server describes them.
#pragma once

#include <string>
#include <vector>

#include "msgctl/admin.h"

namespace msgctl {

// All clients with a name, or the one with a number ("#7"). Throws a Failure when there is none.
std::vector<Json> clients_named(const Admin &admin, const std::string &name);

}  // namespace msgctl
