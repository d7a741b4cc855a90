// msgctl serve: answers a type, as an application would.

#include <fmt/core.h>

#include <cstdio>

#include "common/printable.h"
#include "msgctl/body.h"
#include "msgctl/bus.h"
#include "msgctl/child.h"
#include "msgctl/context.h"
#include "msgctl/message_text.h"
#include "msgctl/output.h"

namespace msgctl {
namespace {

// The longest body that the library of a receiver hands to its procedures.
constexpr size_t kMostOutput = ORP_MSG_MAX_DISPATCHED_BODY;

struct ServeWords {
  std::string type;
  std::vector<std::string> arguments;
  std::string program;
  std::string answer;
  BodyWords body;
  uint32_t count = 0;
  bool echo = false;
  bool quiet = false;
};

struct FixedAnswer {
  uint32_t data;
  std::string body;
};

std::optional<FixedAnswer> run(const Context &context, const ServeWords &words,
                               const ORP_MSG_HEADER_ST &request) {
  std::vector<std::string> arguments{words.program};
  arguments.insert(arguments.end(), words.arguments.begin(), words.arguments.end());
  const uint32_t type = request.ulMsgType & ORP_MSG_TYPE_MASK;
  const catalogue::MessageType *known = context.catalogue.find(type);
  const ChildResult result =
      run_child(arguments,
                {{"MSG_FROM", sender_of(request)},
                 {"MSG_TYPE", fmt::format("0x{:x}", type)},
                 {"MSG_NAME", known == nullptr ? std::string() : std::string(known->name)},
                 {"MSG_DATA", std::to_string(request.ulMsgData)},
                 {"MSG_SEQUENCE", std::to_string(request.ulSeqNum)},
                 {"MSG_LENGTH", std::to_string(request.ulDataLen)}},
                body_of(request), context.timeout_ms, kMostOutput);
  if (result.timed_out) {
    const std::string why = fmt::format(
        "{} was ended: it took more than {} ms (--timeout) or wrote more than {} "
        "bytes; '{}' gets no answer",
        words.program, context.timeout_ms, kMostOutput, sender_of(request));
    std::fputs(error_line(context.json, ExitStatus::kTimeout, why).c_str(), stderr);
    return std::nullopt;
  }
  const uint32_t data = words.answer.empty() ? static_cast<uint32_t>(result.status)
                                             : number(words.answer, "data word");
  return FixedAnswer{data, result.output};
}

void print_request(const Context &context, const ORP_MSG_HEADER_ST &request) {
  if (context.json) {
    print_json(message_json(context, request, Role::kRequest));
    return;
  }
  const std::string body = body_line(context, request, Role::kRequest);
  print_line(fmt::format("{} {} {}{}{}",
                         coloured(Colour::kBlue, servers::printable(sender_of(request))),
                         context.catalogue.describe(request.ulMsgType), request.ulMsgData,
                         body.empty() ? "" : " ", body));
}

void serve(const Context &context, const ServeWords &words) {
  const uint32_t type = type_number(context, words.type);
  if (words.program.empty() && !words.arguments.empty()) {
    throw servers::UsageError("'" + words.arguments[0] +
                              "' is an argument for a program: name that with --exec");
  }
  const bool answers = !words.answer.empty() || words.body.given();
  if (static_cast<int>(!words.program.empty()) + static_cast<int>(words.echo) +
          static_cast<int>(words.program.empty() && answers) !=
      1) {
    throw servers::UsageError(
        "say what to answer: --exec PROGRAM, --answer DATA --body BODY, or "
        "--echo");
  }
  if (!words.program.empty() && words.body.given()) {
    throw servers::UsageError("the program's output is the body: --body does not go with --exec");
  }
  const catalogue::MessageType *known = context.catalogue.find(type);
  FixedAnswer fixed{
      words.answer.empty() ? 0 : number(words.answer, "data word"),
      make_body(words.body, known != nullptr && known->answer ? &*known->answer : nullptr)};

  Bus bus(context, Bus::Purpose::kIsAnswered);
  bus.stay_quietly();
  for (uint32_t served = 0; words.count == 0 || served < words.count;) {
    const Message request = bus.receive(in_ms(3'600'000));
    if (!request) continue;
    const uint32_t got = request->ulMsgType & ORP_MSG_TYPE_MASK;
    if (got == ORP_MSG_UNDELIVERABLE) continue;  // a requester that did not wait
    if (got == ORP_MSG_EXIT && type != ORP_MSG_EXIT) {
      bus.send(sender_of(*request), got, 0, {}, request->ulSeqNum);
      return;
    }
    if (got != type) {
      const std::string what = fmt::format("'{}' sent {}, which is not served", sender_of(*request),
                                           context.catalogue.describe(got));
      std::fputs(error_line(context.json, ExitStatus::kNoSuch, what).c_str(), stderr);
      continue;
    }
    if (!words.quiet) print_request(context, *request);
    ++served;
    std::optional<FixedAnswer> answer = fixed;
    if (words.echo) answer = FixedAnswer{request->ulMsgData, std::string(body_of(*request))};
    if (!words.program.empty()) answer = run(context, words, *request);
    if (answer) {
      bus.send(sender_of(*request), type, answer->data, answer->body, request->ulSeqNum);
    }
  }
}

}  // namespace

void add_serve_command(servers::CommandLine *line, Context *context) {
  static ServeWords words;
  servers::Command command = line->command("serve", "Answer requests of a type, as a stand-in",
                                           [context] { serve(*context, words); });
  add_common_options(&command, context);
  add_item_options(&command, &words.body);
  command.option("--exec", &words.program,
                 "Run PROGRAM for each: MSG_DATA and others in its environment, the body on its "
                 "standard input; its output is the answer's body, its exit status the data");
  command.option("--answer", &words.answer, "The answer's data word");
  command.option("--body", &words.body.word, "The answer's body, as for 'call'");
  command.flag("--echo", &words.echo, "Answer with the request's data and body");
  command.flag("-q,--quiet", &words.quiet, "Do not print the requests");
  command.number("-n,--count", &words.count, "End after so many requests; 0: go on");
  command.argument("TYPE", &words.type, "The message type, by name or number",
                   servers::Presence::kRequired);
  command.arguments("ARGUMENT", &words.arguments, "Arguments of PROGRAM (after --)",
                    servers::Presence::kOptional);
}

}  // namespace msgctl
