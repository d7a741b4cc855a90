// Formats messages that msgctl has received.
#pragma once

#include <optional>
#include <string>

#include "msgctl/bus.h"
#include "msgctl/context.h"
#include "msgctl/output.h"

namespace msgctl {

enum class Role { kRequest, kAnswer };

// {"from", "type", "name", "sequence", "data", "length", "body"}
Json message_json(const Context &context, const ORP_MSG_HEADER_ST &message, Role role);

// The body on one line, "" without a body.
std::string body_line(const Context &context, const ORP_MSG_HEADER_ST &message, Role role);

// A type by its name, constant or number. Throws a Failure.
uint32_t type_number(const Context &context, const std::string &word);
// An event by its module ("wan"), or as a type; "all" for all of them.
uint32_t event_number(const Context &context, const std::string &word);
// "wan", or "0x2da42".
std::string event_text(uint32_t event);

// The answer's data word, if the catalogue says that it is a status and the status is an error.
std::optional<uint32_t> error_of(const Context &context, const ORP_MSG_HEADER_ST &answer);

}  // namespace msgctl
