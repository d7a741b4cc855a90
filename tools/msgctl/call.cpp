// msgctl call, msgctl send: any message to anybody.

#include <fmt/core.h>

#include "catalogue/statuses.h"
#include "msgctl/body.h"
#include "msgctl/bus.h"
#include "msgctl/context.h"
#include "msgctl/message_text.h"
#include "msgctl/output.h"

namespace msgctl {
namespace {

struct CallWords {
  std::string receiver;
  std::string type;
  std::string data;
  BodyWords body;
  bool raw = false;
};

struct Request {
  std::string to;
  uint32_t type;
  uint32_t data;
  std::string body;
};

Request request_of(const Context &context, const CallWords &words) {
  Request request{receiver_name(words.receiver), type_number(context, words.type), 0, {}};
  if (!words.data.empty()) request.data = number(words.data, "data word");
  const catalogue::MessageType *type = context.catalogue.find(request.type);
  request.body = make_body(words.body, type == nullptr ? nullptr : &type->request);
  return request;
}

// The meaning of a status depends on who answered. The catalogue's first one is shown: that of the
// message layer, if it has one.
std::string status_sentence(uint32_t status) {
  const auto meanings = catalogue::meanings(status);
  std::string text = catalogue::status_text(status);
  if (meanings.empty()) return text;
  return fmt::format("{} {}: {}", text, meanings.front().name, meanings.front().sentence);
}

void call(Context *context, const CallWords &words) {
  const Request request = request_of(*context, words);
  const Deadline deadline = in_ms(context->timeout_ms);
  Bus bus(*context, Bus::Purpose::kIsAnswered, deadline);
  const Clock::time_point sent = Clock::now();
  const Message answer = bus.ask(request.to, request.type, request.data, request.body, deadline);
  const std::chrono::duration<double, std::milli> took = Clock::now() - sent;

  const std::optional<uint32_t> error = error_of(*context, *answer);
  if (words.raw) {
    print_bytes(body_of(*answer));
  } else if (context->json) {
    Json json = message_json(*context, *answer, Role::kAnswer);
    json["took_ms"] = took.count();
    print_json(json);
  } else {
    const std::string body = body_line(*context, *answer, Role::kAnswer);
    print_line(fmt::format("{}{}{}", answer->ulMsgData, body.empty() ? "" : " ", body));
  }
  if (error) {
    throw Failure(ExitStatus::kAnswerError, fmt::format("{} answered {}", receiver_text(request.to),
                                                        status_sentence(*error)));
  }
}

void send(Context *context, const CallWords &words) {
  const Request request = request_of(*context, words);
  const Deadline deadline = in_ms(context->timeout_ms);
  Bus bus(*context, Bus::Purpose::kSends, deadline);
  const uint32_t sequence = bus.send(request.to, request.type, request.data, request.body);
  bus.settle(request.to, request.type, sequence, deadline);
  if (context->json) {
    print_json({{"to", request.to},
                {"type", request.type},
                {"data", request.data},
                {"length", request.body.size()}});
  }
}

void add_arguments(servers::Command *command, Context *context, CallWords *words) {
  add_common_options(command, context);
  add_item_options(command, &words->body);
  command->argument("NAME", &words->receiver, "The receiver; 'server' for the message server",
                    servers::Presence::kRequired);
  command->argument("TYPE", &words->type, "The message type, by name or number",
                    servers::Presence::kRequired);
  command->argument("DATA", &words->data, "The data word, a number (default 0)",
                    servers::Presence::kOptional);
  command->argument("BODY", &words->body.word,
                    "TEXT, @FILE, - (standard input), hex:..., json:... or text:...",
                    servers::Presence::kOptional);
}

}  // namespace

void add_call_commands(servers::CommandLine *line, Context *context) {
  static CallWords words;
  servers::Command call_command = line->command("call", "Send a request and print the answer",
                                                [context] { call(context, words); });
  add_arguments(&call_command, context, &words);
  call_command.flag("--raw", &words.raw, "Print the bytes of the answer's body, nothing else");

  servers::Command send_command = line->command("send", "Send a message that nobody answers",
                                                [context] { send(context, words); });
  add_arguments(&send_command, context, &words);
}

}  // namespace msgctl
