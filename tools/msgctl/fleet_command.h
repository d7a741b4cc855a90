// Built only where libmosquitto is installed.
#pragma once

#include "msgctl/context.h"

namespace msgctl {

void add_fleet_command(servers::CommandLine *line, Context *context);

}  // namespace msgctl
