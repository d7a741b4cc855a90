#include "msgctl/bus.h"

#include <fmt/core.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "catalogue/statuses.h"
#include "msgctl/patience.h"

namespace msgctl {
namespace {

constexpr size_t kLongestName = ORP_APP_NAME_SIZE - 1;

// After the server has routed a message, a notice about it may still come for this long: when the
// receiver leaves with the message in its queue.
constexpr uint32_t kLateNotice_ms = 20;

// "msgctl" leaves five characters of a name for the process's number: digits, or letters when the
// number has more digits.
std::string own_name() {
  const auto pid = static_cast<uint32_t>(::getpid());
  if (pid <= 99999) return fmt::format("msgctl{}", pid);
  std::string letters;
  for (uint32_t rest = pid; rest > 0; rest /= 26) letters += static_cast<char>('a' + rest % 26);
  return "msgctl" + letters.substr(0, kLongestName - 6);
}

void check_name(const std::string &name, const char *what) {
  if (name.empty() || name.size() > kLongestName || name.find('\0') != std::string::npos) {
    throw servers::UsageError(
        fmt::format("'{}' is no {}: it has 1 to {} characters", name, what, kLongestName));
  }
}

[[noreturn]] void fail_to_connect() {
  constexpr const char *kHint = "start msgsvr, or look with 'msgctl doctor'";
  struct stat status {};
  if (::stat(ORP_MSG_SERVER_PATH, &status) != 0) {
    throw Failure(errno == EACCES ? ExitStatus::kNotPermitted : ExitStatus::kNoServer,
                  fmt::format("no message server: {}: {}; {}", ORP_MSG_SERVER_PATH,
                              std::strerror(errno), kHint));
  }
  if (::access(ORP_MSG_SERVER_PATH, W_OK) != 0) {
    throw Failure(
        ExitStatus::kNotPermitted,
        fmt::format("the message server's {} may not be used by this user: {}; become root "
                    "or a member of its group",
                    ORP_MSG_SERVER_PATH, std::strerror(errno)));
  }
  throw Failure(ExitStatus::kNoServer, fmt::format("no message server: nobody listens at {}; {}",
                                                   ORP_MSG_SERVER_PATH, kHint));
}

}  // namespace

Deadline in_ms(uint64_t ms) {
  return Clock::now() + std::chrono::milliseconds(ms);
}

uint32_t ms_until(Deadline deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<uint32_t>(std::clamp<int64_t>(left, 0, INT32_MAX));
}

std::string sender_of(const ORP_MSG_HEADER_ST &message) {
  return {message.aucSendApp, ::strnlen(message.aucSendApp, ORP_APP_NAME_SIZE)};
}

std::string_view body_of(const ORP_MSG_HEADER_ST &message) {
  return {reinterpret_cast<const char *>(&message + 1), message.ulDataLen};
}

traffic::Message recorded(const ORP_MSG_HEADER_ST &message, bool answer) {
  traffic::Message copy;
  copy.header = message;
  copy.header.ulMsgType &= ORP_MSG_TYPE_MASK;
  copy.length = message.ulDataLen;
  copy.body = body_of(message);
  copy.answers = answer ? 1 : 0;
  return copy;
}

std::string receiver_name(const std::string &word) {
  if (word.empty() || word == kServerWord) return "";
  check_name(word, "application's name");
  return word;
}

std::string receiver_text(const std::string &name) {
  return name.empty() ? "the message server" : "'" + name + "'";
}

void fail(uint32_t status, const std::string &what) {
  ExitStatus exit = ExitStatus::kAnswerError;
  std::string hint;
  switch (status) {
    case ORP_ERR_PEER_GONE:
    case ORP_ERR_NOT_CONNECTED:
      throw Failure(ExitStatus::kNoServer,
                    what + ": the message server ended the connection; see what it logged");
    case ORP_ERR_TIMEOUT:
    case ORP_ERR_NOT_WRITABLE:
      exit = ExitStatus::kTimeout;
      break;
    case ORP_ERR_HAND_OVER:
      hint =
          "; bodies above 2048 bytes travel through files in /var/run/msg, 'msgctl doctor' "
          "looks at it";
      if (::access("/var/run/msg", W_OK | X_OK) != 0 && errno == EACCES) {
        exit = ExitStatus::kNotPermitted;
      }
      break;
    default:
      break;
  }
  throw Failure(exit, what + ": " + catalogue::describe_status(status) + hint);
}

Bus::Bus(const Context &context, Purpose purpose, Deadline deadline)
    : context_(context), name_(context.as.empty() ? own_name() : context.as) {
  if (!context.as.empty()) check_name(context.as, "name to register under (--as)");
  uint32_t status;
  {
    const PatienceAlarm alarm(
        context, ms_until(deadline),
        "the message server does not answer: it is stopped, or does not get to run");
    const QuietOutput quiet;
    status = ORP_MSG_InitWithoutHandle(name_.c_str());
  }
  if (status == ORP_ERR_SOCKET) fail_to_connect();
  if (status != ORP_OK) {
    throw Failure(ExitStatus::kAnswerError,
                  fmt::format("the notify client of '{}' did not start: {}", name_,
                              catalogue::status_text(status)));
  }
  if (g_stMsgCtx.slSocket < 0) {
    throw Failure(ExitStatus::kNotPermitted,
                  fmt::format("the message server does not register '{}': the name may be its own, "
                              "or this user has too many connections; its log says more",
                              name_));
  }
  if (!context.as.empty() && purpose == Purpose::kIsAnswered && count(name_, deadline) > 1) {
    throw Failure(ExitStatus::kUsage,
                  fmt::format("another client has the name '{}' and would get the answers; "
                              "choose another one with --as",
                              name_));
  }
}

Bus::~Bus() {
  ORP_MSG_Destroy();
}

uint32_t Bus::send(const std::string &to, uint32_t type, uint32_t data, std::string_view body,
                   std::optional<uint32_t> sequence) {
  if (body.size() > ORP_MSG_MAX_BODY) {
    throw Failure(ExitStatus::kBadBody, fmt::format("the body has {} bytes, {} is the most",
                                                    body.size(), ORP_MSG_MAX_BODY));
  }
  const Message message(
      static_cast<ORP_MSG_HEADER_ST *>(std::malloc(ORP_MSG_HEADER_SIZE + body.size())));
  if (!message) throw std::bad_alloc();
  ORP_MSG_SimpleBuilder(message.get(), to.empty() ? nullptr : to.c_str(), type, data);
  if (sequence) message->ulSeqNum = *sequence;
  message->ulDataLen = static_cast<uint32_t>(body.size());
  if (!body.empty()) std::memcpy(message.get() + 1, body.data(), body.size());
  const uint32_t status = ORP_MSG_Send(message.get());
  if (status != ORP_OK) fail(status, "the message was not sent");
  return message->ulSeqNum;
}

Message Bus::receive(Deadline deadline) {
  if (!early_.empty()) {
    Message message = std::move(early_.front());
    early_.pop_front();
    return message;
  }
  pollfd entries[] = {{.fd = g_stMsgCtx.slSocket, .events = POLLIN, .revents = 0},
                      {.fd = STDOUT_FILENO, .events = 0, .revents = 0}};
  for (;;) {
    const int ready = ::poll(entries, 2, static_cast<int>(ms_until(deadline)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) return nullptr;
    if ((entries[1].revents & POLLERR) != 0) std::_Exit(0);
    if (entries[0].revents != 0) break;
    entries[1].fd = -1;  // closed from the start: nothing to watch
  }
  ORP_MSG_HEADER_ST *message = nullptr;
  const uint32_t status = ORP_MSG_ReceiveManual(&message, std::max(ms_until(deadline), 1000u));
  if (status != ORP_OK) fail(status, "nothing more can be received");
  return Message(message);
}

bool Bus::is_notice(const ORP_MSG_HEADER_ST &message, uint32_t type, uint32_t sequence) const {
  return message.ulMsgType == ORP_MSG_UNDELIVERABLE &&
         (message.ulMsgData & ORP_MSG_TYPE_MASK) == type && message.ulSeqNum == sequence;
}

void Bus::fail_undelivered(const std::string &to, uint32_t type, Deadline deadline) {
  if (to.empty()) {
    throw Failure(ExitStatus::kNoSuch,
                  fmt::format("the message server has no use for {}, or refused it; its log says "
                              "more",
                              context_.catalogue.describe(type)));
  }
  if (count(to, std::max(deadline, in_ms(1000))) == 0) {
    throw Failure(
        ExitStatus::kNoSuch,
        fmt::format("no application is registered as '{}'; 'msgctl list' shows who is", to));
  }
  throw Failure(ExitStatus::kLost,
                fmt::format("'{}' did not get {}: its queue is full, or it left just then; "
                            "'msgctl info {}' shows its queue",
                            to, context_.catalogue.describe(type), to));
}

Message Bus::ask(const std::string &to, uint32_t type, uint32_t data, std::string_view body,
                 Deadline deadline) {
  return answer(to, type, send(to, type, data, body), deadline);
}

Message Bus::answer(const std::string &to, uint32_t type, uint32_t sequence, Deadline deadline) {
  while (Message message = receive(deadline)) {
    if (is_notice(*message, type, sequence)) fail_undelivered(to, type, deadline);
    if ((message->ulMsgType & ORP_MSG_TYPE_MASK) != type) continue;
    // Some applications do not return the sequence number: their answer is known by its sender.
    if (message->ulSeqNum == sequence || (!to.empty() && sender_of(*message) == to)) return message;
  }
  throw Failure(ExitStatus::kTimeout,
                fmt::format("{} did not answer {} in {} ms (--timeout)", receiver_text(to),
                            context_.catalogue.describe(type), context_.timeout_ms));
}

uint32_t Bus::count(const std::string &name, Deadline deadline) {
  std::string body = name;
  body.resize(ORP_APP_NAME_SIZE);
  return ask("", ORP_MSG_COUNT_PROCESSES, 0, body, deadline)->ulMsgData;
}

void Bus::settle(const std::string &to, uint32_t type, uint32_t sequence, Deadline deadline) {
  // The server takes a client's messages in order, so it answers this one after any notice about
  // the earlier one.
  const uint32_t barrier = send("", ORP_MSG_FACTORY_MODE, 0, {});
  bool routed = false;
  while (Message message = receive(routed ? in_ms(kLateNotice_ms) : deadline)) {
    if (is_notice(*message, type, sequence)) fail_undelivered(to, type, deadline);
    if (message->ulMsgType == ORP_MSG_FACTORY_MODE && message->ulSeqNum == barrier) routed = true;
  }
  if (!routed) {
    throw Failure(ExitStatus::kTimeout,
                  fmt::format("the message waits in the server: {} does not take what it is sent",
                              receiver_text(to)));
  }
}

void Bus::stay_quietly() {
  send("", ORP_MSG_STOP_WATCHDOG, 0, {});
}

void Bus::subscribe(uint32_t event, Deadline deadline) {
  const uint32_t sequence = send("", ORP_MSG_SUBSCRIBE, event, {});
  const uint32_t barrier = send("", ORP_MSG_FACTORY_MODE, 0, {});
  std::deque<Message> early;
  while (Message message = receive(deadline)) {
    if (is_notice(*message, ORP_MSG_SUBSCRIBE, sequence)) {
      throw Failure(ExitStatus::kNotPermitted,
                    "the message server refuses the subscription: this user has too many");
    }
    if (message->ulMsgType == ORP_MSG_FACTORY_MODE && message->ulSeqNum == barrier) {
      early_.swap(early);
      return;
    }
    early.push_back(std::move(message));
  }
  throw Failure(ExitStatus::kTimeout, "the message server does not answer the subscription");
}

}  // namespace msgctl
