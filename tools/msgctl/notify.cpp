// msgctl notify: the notify server's modules, requests and notifications.

#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "catalogue/statuses.h"
#include "msgapi/notify.h"
#include "msgctl/body.h"
#include "msgctl/bus.h"
#include "msgctl/context.h"
#include "msgctl/message_text.h"
#include "msgctl/output.h"
#include "msgctl/patience.h"
#include "traffic/decode.h"

namespace msgctl {
namespace {

struct NotifyWords {
  std::string action;
  std::vector<std::string> words;
  std::string from = "109";
  std::string argument;
  bool raw = false;
};

uint32_t module_number(const std::string &word) {
  uint32_t id = ORP_NOTIFYCLT_GetMIDByName(word.c_str());
  if (id == 0) std::from_chars(word.data(), word.data() + word.size(), id);
  if (id == 0 || id >= ORP_NOTIFYCLT_MODULES) {
    throw Failure(
        ExitStatus::kNoSuch,
        fmt::format("'{}' is no module: give a number from 1 to {}, or a name that 'msgctl "
                    "notify modules' lists",
                    word, ORP_NOTIFYCLT_MODULES - 1));
  }
  return id;
}

void print_modules(const Context &context) {
  Table table({{"ID", Table::Align::kRight}, {"NAME"}});
  for (uint32_t id = 1; id < ORP_NOTIFYCLT_MODULES; ++id) {
    const char *name = ORP_NOTIFYCLT_GetNameByMID(id);
    if (name == nullptr && id != ORP_NOTIFYCLT_SERVER) continue;
    const std::string text = name == nullptr ? "(the notify server)" : name;
    if (context.json) {
      print_json({{"id", id}, {"name", name == nullptr ? Json(nullptr) : Json(name)}});
    } else {
      table.add({std::to_string(id), text});
    }
  }
  if (!context.json) table.print();
}

[[noreturn]] void fail_notify(uint32_t status, const std::string &what) {
  ExitStatus exit = ExitStatus::kAnswerError;
  if (status == ORP_NOTIFYCLT_ERR_TIMEOUT) exit = ExitStatus::kTimeout;
  if (status == ORP_NOTIFYCLT_ERR_SOCKET || status == ORP_NOTIFYCLT_ERR_PEER_GONE) {
    exit = ExitStatus::kNoServer;
  }
  throw Failure(exit,
                what + ": " + catalogue::describe_status(status, catalogue::StatusFamily::kNotify));
}

class Client {
 public:
  explicit Client(const NotifyWords &words) {
    const std::string path = std::string(ORP_NOTIFYCLT_DIRECTORY) + "/" + ORP_NOTIFYCLT_SERVER_NAME;
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
      throw Failure(
          errno == EACCES ? ExitStatus::kNotPermitted : ExitStatus::kNoServer,
          fmt::format("no notify server: {}: {}; start notifyserver", path, std::strerror(errno)));
    }
    const uint32_t result = ORP_NOTIFYCLT_Init(module_number(words.from));
    if (result != ORP_NOTIFYCLT_OK) fail_notify(result, "no connection to the notify server");
  }
  ~Client() { ORP_NOTIFYCLT_Destroy(); }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;
};

std::string argument_at(const NotifyWords &words, size_t index) {
  return index < words.words.size() ? words.words[index] : std::string();
}

std::string bytes_at(const NotifyWords &words, size_t index) {
  const std::string word = argument_at(words, index);
  return word.empty() ? std::string() : make_body({word, {}, 0});
}

void request(const Context &context, const NotifyWords &words) {
  const uint32_t to = module_number(argument_at(words, 0));
  const uint32_t type = number(argument_at(words, 1), "message type");
  const std::string body = bytes_at(words, 2);
  const uint32_t argument = words.argument.empty() ? 0 : number(words.argument, "argument");
  void *raw = nullptr;
  uint32_t length = 0;
  {
    // The library waits 20 s for each message, whatever --timeout says.
    const PatienceAlarm alarm(context, context.timeout_ms,
                              fmt::format("module {} did not answer type {} in {} ms (--timeout): "
                                          "nobody may have registered it",
                                          to, type, context.timeout_ms));
    const QuietOutput quiet;
    const Client client(words);
    const uint32_t status = ORP_NOTIFYCLT_SendSynNotify(
        to, type, body.empty() ? nullptr : body.data(), static_cast<uint32_t>(body.size()), &raw,
        &length, words.argument.empty() ? nullptr : &argument);
    if (status != ORP_NOTIFYCLT_OK) fail_notify(status, "no answer");
  }
  const std::unique_ptr<void, decltype(&std::free)> owned(raw, &std::free);
  const std::string_view answer =
      raw == nullptr ? std::string_view() : std::string_view(static_cast<char *>(raw), length);
  // The catalogue has no notifications, so the body is shown by what it looks like.
  traffic::Message message;
  message.header.ulMsgType = ORP_MSG_TYPE_MASK;
  message.length = length;
  message.body = answer;
  if (words.raw) {
    print_bytes(answer);
  } else if (context.json) {
    print_json({{"from", to},
                {"type", type},
                {"length", length},
                {"body", traffic::body_json(message, context.catalogue)}});
  } else {
    print_line(traffic::body_line(message, context.catalogue));
  }
}

void notify(const Context &context, const NotifyWords &words) {
  const uint32_t to = module_number(argument_at(words, 0));
  const uint32_t type = number(argument_at(words, 1), "message type");
  const std::string first = bytes_at(words, 2);
  const std::string second = bytes_at(words, 3);
  const PatienceAlarm alarm(context, context.timeout_ms, "the notify server takes nothing");
  {
    const QuietOutput quiet;
    const Client client(words);
    const uint32_t status = ORP_NOTIFYCLT_PostAsynNotify(
        to, type, first.empty() ? nullptr : first.data(), static_cast<uint32_t>(first.size()),
        second.empty() ? nullptr : second.data(), static_cast<uint32_t>(second.size()));
    if (status != ORP_NOTIFYCLT_OK) fail_notify(status, "the notification was not sent");
  }
  if (context.json) print_json({{"to", to}, {"type", type}});
}

void run(const Context &context, const NotifyWords &words) {
  if (words.action == "modules") return print_modules(context);
  if (words.action != "request" && words.action != "send") {
    throw servers::UsageError("'" + words.action + "' is not 'modules', 'request' or 'send'");
  }
  const bool asks = words.action == "request";
  if (words.words.size() < 2 || words.words.size() > (asks ? 3 : 4)) {
    throw servers::UsageError(asks ? "notify request takes MODULE TYPE [BODY]"
                                   : "notify send takes MODULE TYPE [FIRST [SECOND]]");
  }
  asks ? request(context, words) : notify(context, words);
}

}  // namespace

void add_notify_command(servers::CommandLine *line, Context *context) {
  static NotifyWords words;
  servers::Command command = line->command("notify", "Ask or notify a module of the notify server",
                                           [context] { run(*context, words); });
  add_common_options(&command, context);
  command.option("--from", &words.from, "The module to register as, by name or number");
  command.option("--argument", &words.argument, "The optional argument of a request");
  command.flag("--raw", &words.raw, "Print the bytes of the answer, nothing else");
  command.argument("modules|request|send", &words.action, "What to do",
                   servers::Presence::kRequired);
  command.arguments("WORD", &words.words,
                    "request: MODULE TYPE [BODY]; send: MODULE TYPE [FIRST [SECOND]]",
                    servers::Presence::kOptional);
}

}  // namespace msgctl
