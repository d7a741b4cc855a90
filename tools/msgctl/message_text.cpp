#include "msgctl/message_text.h"

#include <fmt/core.h>

#include "common/printable.h"
#include "msgapi/event.h"
#include "traffic/decode.h"

namespace msgctl {

Json message_json(const Context &context, const ORP_MSG_HEADER_ST &message, Role role) {
  const uint32_t number = message.ulMsgType & ORP_MSG_TYPE_MASK;
  const catalogue::MessageType *type = context.catalogue.find(number);
  return {
      {"from", servers::printable(sender_of(message))},
      {"type", number},
      {"name", type == nullptr ? Json(nullptr) : Json(type->name)},
      {"sequence", message.ulSeqNum},
      {"data", message.ulMsgData},
      {"length", message.ulDataLen},
      {"body", traffic::body_json(recorded(message, role == Role::kAnswer), context.catalogue)}};
}

std::string body_line(const Context &context, const ORP_MSG_HEADER_ST &message, Role role) {
  return traffic::body_line(recorded(message, role == Role::kAnswer), context.catalogue);
}

uint32_t type_number(const Context &context, const std::string &word) {
  const std::optional<uint32_t> number = context.catalogue.number_of(word);
  if (!number) {
    throw Failure(
        ExitStatus::kNoSuch,
        fmt::format("'{}' is no message type: give a number, or a name that 'msgctl types' lists",
                    word));
  }
  return *number & ORP_MSG_TYPE_MASK;
}

uint32_t event_number(const Context &context, const std::string &word) {
  if (word == "all") return ORP_MSG_ALL_EVENTS;
  const uint32_t event = ORP_EVT_GetMsgTypeByEventModuleName(word.c_str());
  if (event != ORP_MSG_ALL_EVENTS) return event;
  if (const auto number = context.catalogue.number_of("event-" + word)) return *number;
  if (const auto number = context.catalogue.number_of(word)) return *number & ORP_MSG_TYPE_MASK;
  throw Failure(
      ExitStatus::kNoSuch,
      fmt::format("'{}' is no event: give a module ('msgctl complete events' lists them), "
                  "a type's name or a number",
                  word));
}

std::string event_text(uint32_t event) {
  const char *module = ORP_EVT_GetEventModuleNameByEventType(event);
  return module == nullptr ? fmt::format("0x{:x}", event) : module;
}

std::optional<uint32_t> error_of(const Context &context, const ORP_MSG_HEADER_ST &answer) {
  const catalogue::MessageType *type = context.catalogue.find(answer.ulMsgType);
  if (type == nullptr || !type->answer || answer.ulMsgData == 0) return std::nullopt;
  if (!type->answer->data.starts_with("status")) return std::nullopt;
  return answer.ulMsgData;
}

}  // namespace msgctl
