// A client does at random what applications do, and checks everything that arrives: nothing comes
// twice or out of order, every body is whole, and every procedure is called as often as it must be.
//
// A message has the number of the sender's connection in its data word, and its number for this
// receiver as its sequence number. Requests have a type for each pair, direction and way. A client
// that waits for an answer asks only clients with higher numbers, so no two wait for each other.

#include "client.h"

#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <fmt/core.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "msgapi.h"
#include "msgapi/kit.h"

namespace soak {
namespace {

using std::chrono::steady_clock;

// Types; messages have one for each receiver, requests for each pair.
constexpr uint32_t kMessage = 0x3000;
constexpr uint32_t kDescriptor = 0x3021;
constexpr uint32_t kTaken = 0x3022;
constexpr uint32_t kRequest = 0x3100;
constexpr uint32_t kNotice = 5;
constexpr uint32_t kNotifyRequest = 6;
constexpr uint32_t kProbe = 1;  // to the notify server itself

constexpr uint32_t kTick_ms = 10;
// Longer than anything that a client does itself can take.
constexpr uint32_t kPatience_ms = 20000;
constexpr uint32_t kPatienceWithMayflies_ms = 300;
constexpr uint32_t kMostAsked = 8;
constexpr uint32_t kMostChildren = 2;
constexpr uint32_t kSizes[] = {0, 2048, 0x10000};

struct Asked {
  uint32_t to, size;
  char letter;
  steady_clock::time_point at;
};

struct Position {
  uint32_t connection = 0, number = 0;
};

Board *g_board;
Slot *g_slot;
uint32_t g_self;
uint32_t g_incarnation;
std::mt19937 g_random;
uint32_t g_connection;         // its number
bool g_connected;              // according to the kit
uint32_t g_notify_connection;  // 0: none
std::array<uint32_t, kSpeakers + 1> g_numbers;
std::array<Position, kSpeakers> g_heard;
std::array<std::array<Position, kEvents>, kRegulars> g_events_heard;
Position g_notice_heard;
std::map<uint32_t, Asked> g_asked;
uint32_t g_last_asked;
uint32_t g_children;
uint32_t g_given;  // descriptors that the taker has not confirmed yet
uint64_t g_log_epoch, g_first_line;

template <typename... Values>
[[noreturn]] void fail(fmt::format_string<Values...> format, Values &&...values) {
  const std::string text = fmt::format(format, std::forward<Values>(values)...);
  if (!g_board->failed.exchange(true)) {
    std::snprintf(g_board->failure, sizeof g_board->failure, "%s: %s", kNames[g_self],
                  text.c_str());
  }
  std::_Exit(1);
}

uint32_t below(uint32_t limit) {
  return static_cast<uint32_t>(g_random() % limit);
}
bool one_in(uint32_t count) {
  return below(count) == 0;
}
Traffic &traffic() {
  return g_slot->traffic;
}
Totals &totals() {
  return g_slot->totals;
}

bool all_are_there() {
  return g_slot->epoch != 0 && g_slot->epoch == g_board->all_there;
}

uint32_t speaker(const char *name) {
  uint32_t client = 0;
  while (client < kSpeakers && std::strncmp(kNames[client], name, ORP_APP_NAME_SIZE) != 0) ++client;
  return client;
}

char letter(uint32_t number) {
  return static_cast<char>('a' + number % 26);
}

uint32_t size_of(uint32_t number) {
  return kSizes[number % 10 < 6 ? 0 : number % 10 < 9 ? 1 : 2];
}

void check_body(const ORP_MSG_HEADER_ST *message, uint32_t size, char byte) {
  const char *body = reinterpret_cast<const char *>(message + 1);
  if (message->ulDataLen != size) {
    fail("a body of {} bytes instead of {}", message->ulDataLen, size);
  }
  for (uint32_t i = 0; i < size; ++i) {
    if (body[i] != byte) fail("byte {} of {} in a body is not what was sent", i, size);
  }
}

// Fails unless this number comes after all that were heard before.
void check_order(Position *heard, uint32_t connection, uint32_t number, const char *what,
                 uint32_t from) {
  const Position last = connection > heard->connection ? Position{connection, 0} : *heard;
  if (connection < last.connection || number <= last.number) {
    fail("{} {} on connection {} of {} comes after {} on {}", what, number, connection,
         kNames[from], last.number, last.connection);
  }
  *heard = {connection, number};
}

// False when the send failed. The driver allows no failures on a connection that lasts.
bool sent(uint32_t status) {
  if (status == ORP_OK) return true;
  if (status == ORP_ERR_NOT_WRITABLE) fail("the message server takes nothing for 10 s");
  traffic().failures.add();
  return false;
}

// ---- What arrives ----

void take_message(ORP_MSG_HEADER_ST *message) {
  const uint32_t from = speaker(message->aucSendApp);
  if (from == kSpeakers) fail("a message of nobody");
  check_order(&g_heard[from], message->ulMsgData, message->ulSeqNum, "message", from);
  check_body(message, size_of(message->ulSeqNum), letter(message->ulSeqNum));
  traffic().received[from].add();
  totals().received.add();
}

void take_notice(ORP_MSG_HEADER_ST *notice) {
  traffic().notices.add();
  const uint32_t to = notice->ulMsgData - kMessage;
  if (to > kNobody) return;
  if (notice->ulSeqNum > g_numbers[to]) fail("a notice of a message that was never sent");
  traffic().told[to].add();
  totals().told.add();
}

ORP_MSG_HEADER_ST *answer(ORP_MSG_HEADER_ST *request) {
  return ORP_MSG_MsgRespBuilder(request, request->ulMsgData, ORP_MSG_GetMsgByHeader(request),
                                request->ulDataLen);
}

uint32_t take_event(uint32_t type, const void *data, uint32_t length) {
  const auto *text = static_cast<const char *>(data);
  const uint32_t event = type == ORP_MSG_EVENT_WAN ? kAsItems : kAsJson;
  if (event == kAsItems && std::strlen(text) != length) fail("an event is longer than its text");
  const char *token = std::strstr(text, "soak:");
  uint32_t from, connection, number;
  if (token == nullptr || std::sscanf(token, "soak:%u.%u.%u", &from, &connection, &number) != 3 ||
      from >= kRegulars || !subscribes(g_self, event)) {
    fail("an event that nobody has published: {:.100}", text);
  }
  check_order(&g_events_heard[from][event], connection, number, "event", from);
  traffic().events[from][event].add();
  totals().events.add();
  return 0;
}

uint32_t echo(const ORP_MSG_RESTFUL_REQ_ST *request, char **response) {
  *response = ::strdup(ORP_MSG_RESTFUL_TEXT(request));
  return 0;
}
const ORP_MSG_RESTFUL_ROW_ST kRows[] = {{"echo", echo}, {nullptr, nullptr}};

uint32_t other_notified() {
  return g_self == kCms ? kWeb : kCms;
}

void take_notification(void *first, void *second) {
  uint32_t connection, number;
  if (first == nullptr || second == nullptr) fail("a notification without its items");
  std::memcpy(&connection, first, sizeof connection);
  std::memcpy(&number, second, sizeof number);
  check_order(&g_notice_heard, connection, number, "notification", other_notified());
  g_slot->notifications.received.add();
  totals().notifications.add();
}

void answer_notify_request(void *data, uint32_t *length, void **reply) {
  if (data == nullptr) return;
  *reply = ::strdup(static_cast<const char *>(data));
  *length = static_cast<uint32_t>(std::strlen(static_cast<const char *>(data)) + 1);
}

void take_descriptor(ORP_MSG_HEADER_ST *message) {
  int32_t fd = -1;
  const uint32_t status = ORP_MSG_RecvFd(&fd, kPatience_ms);
  if (status == ORP_ERR_NOT_CONNECTED || status == ORP_ERR_PEER_GONE) return;
  if (status != ORP_OK) fail("no descriptor after the message that announced it ({:#x})", status);
  uint32_t number = 0;
  if (::pread(fd, &number, sizeof number, 0) != sizeof number || number != message->ulMsgData) {
    fail("descriptor {} is another one", message->ulMsgData);
  }
  ::close(fd);
  traffic().taken.add();
  totals().descriptors.add();
  sent(ORP_MSG_SendSimpleMsgWithSeqNum(kNames[kGiver], kTaken, number, number));
}

// ---- What it does ----

ORP_MSG_HEADER_ST *message_with(uint32_t size, uint32_t type, uint32_t to, uint32_t data,
                                char byte) {
  static std::vector<char> memory(ORP_MSG_HEADER_SIZE + kSizes[2]);
  auto *message = reinterpret_cast<ORP_MSG_HEADER_ST *>(memory.data());
  ORP_MSG_SimpleBuilder(message, kNames[to], type, data);
  message->ulDataLen = size;
  std::memset(message + 1, byte, size);
  return message;
}

// Messages to and from mayflies have no body in a file: files that a killed process leaves would
// look like files that were lost.
void send_message(uint32_t to) {
  uint32_t number = g_numbers[to] + 1;
  if (is_mayfly(to) || is_mayfly(g_self)) {
    while (number % 10 == 9) ++number;
  }
  g_numbers[to] = number;
  const uint32_t size = size_of(number);
  ORP_MSG_HEADER_ST *message = message_with(size, kMessage + to, to, g_connection, letter(number));
  message->ulSeqNum = number;
  if (!sent(ORP_MSG_Send(message))) return;
  traffic().sent[to].add();
  totals().sent.add();
}

void send_nowhere() {
  const uint32_t number = ++g_numbers[kNobody];
  if (!sent(ORP_MSG_SendSimpleMsgWithSeqNum("nobody", kMessage + kNobody, 0, number))) return;
  traffic().sent[kNobody].add();
  totals().sent.add();
}

// Types differ by way: a synchronous wait would take the answer to an earlier asynchronous request
// of its type for its own.
enum Way : uint32_t { kWaitedFor, kLater, kWays };
uint32_t request_type(uint32_t asker, uint32_t to, Way way) {
  return kRequest + (asker * kSpeakers + to) * kWays + way;
}

void wait_for_answer(uint32_t to) {
  const uint32_t size = kSizes[below(3)];
  const uint32_t data = below(UINT32_MAX);
  ORP_MSG_HEADER_ST *got = nullptr;
  const uint32_t status = ORP_MSG_SendAndRecv(
      message_with(size, request_type(g_self, to, kWaitedFor), to, data, letter(data)), &got,
      kPatience_ms);
  if (status == ORP_ERR_TIMEOUT) fail("{} has not answered within 20 s", kNames[to]);
  if (!sent(status)) return;
  if (got->ulMsgData != data) fail("the answer of {} is another one's", kNames[to]);
  check_body(got, size, letter(data));
  std::free(got);
  totals().waited_for.add();
}

void take_answer(ORP_MSG_HEADER_ST *got, uint32_t timed_out, ORP_WORD id) {
  const auto found = g_asked.find(static_cast<uint32_t>(id));
  if (found == g_asked.end()) fail("the callback of a request is called twice");
  const Asked asked = found->second;
  g_asked.erase(found);
  if (timed_out == 0) {
    check_body(got, asked.size, asked.letter);
    totals().answered_later.add();
    return;
  }
  if (!is_mayfly(asked.to) &&
      steady_clock::now() - asked.at >= std::chrono::milliseconds(kPatience_ms)) {
    fail("{} has not answered an asynchronous request within 20 s", kNames[asked.to]);
  }
  totals().unanswered.add();
}

void ask_for_later(uint32_t to) {
  if (g_asked.size() >= kMostAsked) return;
  const bool mayfly = is_mayfly(to) || is_mayfly(g_self);
  const uint32_t size = kSizes[below(mayfly ? 2 : 3)];
  const uint32_t id = ++g_last_asked;
  // Noted before the send, which may find the connection's end.
  g_asked[id] = {to, size, letter(id), steady_clock::now()};
  if (!sent(ORP_MSG_AsyncSendAndReceive(
          message_with(size, request_type(g_self, to, kLater), to, id, letter(id)),
          is_mayfly(to) ? kPatienceWithMayflies_ms : kPatience_ms, id, take_answer))) {
    g_asked.erase(id);
  }
}

void publish(Event event) {
  const uint64_t number = traffic().published[event] + 1;
  const std::string token = fmt::format("soak:{}.{}.{}", g_self, g_connection, number);
  uint32_t status;
  if (event == kAsItems) {
    status = ORP_EVT_PublishEvent(ORP_MSG_EVENT_WAN, "soak", "token", token.c_str());
  } else {
    cJSON *payload = cJSON_CreateObject();
    cJSON_AddStringToObject(payload, "token", token.c_str());
    status = ORP_EVT_PublishEventWithJson("monitor", "soak", ORP_MSG_EVENT_MONITOR, payload);
    cJSON_Delete(payload);
  }
  if (!sent(status)) return;
  traffic().published[event].set(number);
  totals().published.add();
}

void log_line() {
  Lines &lines = g_slot->lines;
  if (const uint64_t epoch = g_board->log_epoch; epoch != g_log_epoch) {
    g_log_epoch = epoch;
    g_first_line = lines.done + 1;
  }
  lines.begun.add();
  MlogPrint(kNames[g_self], MLOG_LEVEL_INFO, "%s", line_text(g_incarnation, lines.begun).c_str());
  lines.done.add();
  totals().lines.add();
}

void flush_log() {
  Lines &lines = g_slot->lines;
  if (MlogFlushLog() != 0 || g_board->log_epoch != g_log_epoch) return;
  totals().flushes.add();
  if (lines.flushes < lines.flushed.size() && g_first_line <= lines.done) {
    lines.flushed[lines.flushes] = {g_first_line, lines.done};
    lines.flushes.add();
  }
}

struct Child {
  uint32_t number;  // which it prints, and which is its exit code modulo 100
  std::string output;
};

void read_output(OrpUvProcess *process, OrpUvIo *io, uint32_t /*which*/) {
  char bytes[256];
  const ssize_t count = ::read(io->fd, bytes, sizeof bytes);
  if (count <= 0) return OrpUvProcessDeleteRedirectIo(process, io);
  reinterpret_cast<Child *>(process->head.data)->output.append(bytes, static_cast<size_t>(count));
}

void take_end(OrpUvProcess *process, int32_t /*pid*/, uint32_t exit_code, uint32_t signal) {
  const std::unique_ptr<Child> child(reinterpret_cast<Child *>(process->head.data));
  --g_children;
  if (signal != 0 || exit_code != child->number % 100 ||
      child->output != fmt::format("{}\n", child->number)) {
    fail("child {} ends with {} (signal {}) after \"{:.100}\"", child->number, exit_code, signal,
         child->output);
  }
  totals().children.add();
}

void start_child() {
  if (g_children >= kMostChildren) return;
  auto child = std::make_unique<Child>(Child{below(1000000), ""});
  std::string command = fmt::format("echo {}; exit {}", child->number, child->number % 100);
  char shell[] = "sh", option[] = "-c";
  char *arguments[] = {shell, option, command.data(), nullptr};
  OrpUvSpawnOptions options = {};
  options.file = "/bin/sh";
  options.args = arguments;
  options.exitProc = take_end;
  options.outputProc = read_output;
  options.flags = ORP_UV_SPAWN_STDOUT;
  options.data = reinterpret_cast<ORP_WORD>(child.get());
  const uint32_t status = OrpUvProcessSpawn(nullptr, nullptr, &options);
  if (status != ORP_OK) fail("a child cannot be started ({:#x})", status);
  child.release();
  ++g_children;
}

void notify() {
  if (g_slot->notify_epoch == 0 || g_slot->notify_epoch != g_board->notify_all_there) return;
  const uint32_t other = ORP_NOTIFYCLT_GetMIDByName(kNames[other_notified()]);
  Notifications &mine = g_slot->notifications;
  const auto number = static_cast<uint32_t>(mine.posted + 1);
  if (ORP_NOTIFYCLT_PostSimpleAsynNotify(other, kNotice, g_notify_connection, number) ==
      ORP_NOTIFYCLT_OK) {
    mine.posted.add();
  } else {
    mine.failures.add();
  }
  if (g_self != kCms || !one_in(4)) return;
  const std::string text = std::to_string(below(UINT32_MAX));
  void *reply = nullptr;
  uint32_t length = 0;
  const uint32_t status =
      ORP_NOTIFYCLT_SendSynNotify(other, kNotifyRequest, text.c_str(),
                                  static_cast<uint32_t>(text.size() + 1), &reply, &length, nullptr);
  if (status != ORP_NOTIFYCLT_OK) return mine.failures.add();
  if (length != text.size() + 1 || text != static_cast<const char *>(reply)) {
    fail("a notify request's reply is not what was sent");
  }
  std::free(reply);
  totals().notify_requests.add();
}

void give_descriptor() {
  if (g_given >= 3 || g_slot->epoch != g_board->epoch || !all_are_there()) return;
  const int fd = ::memfd_create("soak", MFD_CLOEXEC);
  const uint32_t number = below(UINT32_MAX);
  if (fd < 0 || ::write(fd, &number, sizeof number) != sizeof number) fail("no memory file");
  if (sent(ORP_MSG_SendSimpleMsgWithSeqNum(kNames[kTaker], kDescriptor, number, number)) &&
      sent(ORP_MSG_SendFd(fd))) {
    traffic().passed.add();
    ++g_given;
  }
  ::close(fd);
}

// ---- Its connections ----

// When the server has answered this, it has dealt with everything that was sent before.
void settle_in() {
  const uint64_t epoch = g_board->epoch;
  if (ORP_MSG_GetNumOfProcesses(kNames[g_self]) != 0) g_slot->epoch.set(epoch);
}

void settle_in_with_notifications() {
  const uint64_t epoch = g_board->notify_epoch;
  if (ORP_NOTIFYCLT_SendSynNotify(ORP_NOTIFYCLT_SERVER, kProbe, nullptr, 0, nullptr, nullptr,
                                  nullptr) == ORP_NOTIFYCLT_OK) {
    g_slot->notify_epoch.set(epoch);
  }
}

void changed(uint32_t server, uint32_t connected) {
  if (server == MSGKIT_NOTIFY_SERVER) {
    g_slot->notify_epoch.set(0);
    if (connected == 0) return;
    std::construct_at(&g_slot->notifications);
    ++g_notify_connection;
    return settle_in_with_notifications();
  }
  g_slot->epoch.set(0);
  g_connected = connected != 0;
  if (!g_connected) return;
  std::construct_at(&g_slot->traffic);
  g_numbers = {};
  g_given = 0;
  ++g_connection;
  settle_in();
}

// ---- Its life ----

void speak() {
  const bool all_there = all_are_there();
  for (uint32_t count = below(4); count > 0 && is_regular(g_self); --count) {
    send_message((g_self + 1 + below(kRegulars - 1)) % kRegulars);
  }
  if (is_regular(g_self) && one_in(20)) send_nowhere();
  if (!all_there) return;
  if (is_mayfly(g_self)) send_message(below(kRegulars));
  if (is_regular(g_self) && one_in(4)) send_message(kRegulars + below(kMayflies));
  // A mayfly asks only regulars: it might not live to count the notice when another mayfly is gone.
  if (one_in(4)) {
    ask_for_later(is_mayfly(g_self) ? below(kRegulars)
                                    : (g_self + 1 + below(kSpeakers - 1)) % kSpeakers);
  }
  if (g_self + 1 < kRegulars && one_in(8)) {
    wait_for_answer(g_self + 1 + below(kRegulars - 1 - g_self));
  }
  if (is_regular(g_self) && one_in(4)) publish(static_cast<Event>(below(kEvents)));
}

bool is_at_rest() {
  return g_asked.empty() && g_children == 0 && g_given == 0;
}

void tick(ORP_WORD /*data*/) {
  if (g_board->stop != 0) return OrpUvLoopStop(OrpUvLoopGetDefault());
  const uint64_t pause = g_board->pause;
  if (g_connected && g_slot->epoch == 0) settle_in();
  if (g_slot->notify_epoch == 0 && msgkit_is_connected(MSGKIT_NOTIFY_SERVER) != 0) {
    settle_in_with_notifications();
  }
  if (pause != g_board->resumed && !is_mayfly(g_self)) {
    if (is_at_rest()) g_slot->paused.set(pause);
    return;
  }
  if (g_self == kGiver) return give_descriptor();
  if (g_self == kTaker) return;
  if (g_slot->epoch != 0) speak();
  if (one_in(3)) log_line();
  if (one_in(200)) flush_log();
  if (one_in(30)) start_child();
  if (is_notified(g_self) && one_in(3)) notify();
}

void register_procedures() {
  ORP_MSG_RegMsgProc(ORP_MSG_UNDELIVERABLE, take_notice, 0, nullptr);
  if (g_self < kSpeakers) {
    ORP_MSG_RegMsgProc(kMessage + g_self, take_message, 0, nullptr);
    for (uint32_t asker = 0; asker < kSpeakers; ++asker) {
      if (asker == g_self) continue;
      ORP_MSG_RegisterSyncMsgProc(request_type(asker, g_self, kWaitedFor), answer, 0, nullptr);
      ORP_MSG_RegisterSyncMsgProc(request_type(asker, g_self, kLater), answer, 0, nullptr);
    }
  }
  if (g_self == kTaker) ORP_MSG_RegMsgProc(kDescriptor, take_descriptor, 0, nullptr);
  if (g_self == kGiver) {
    ORP_MSG_RegMsgProc(
        kTaken, [](ORP_MSG_HEADER_ST *) { --g_given; }, 0, nullptr);
  }
  if (subscribes(g_self, kAsItems)) msgkit_subscribe(ORP_MSG_EVENT_WAN, take_event);
  if (subscribes(g_self, kAsJson)) msgkit_subscribe(ORP_MSG_EVENT_MONITOR, take_event);
  static const std::string path = std::string("/soak/") + kNames[g_self];
  if (is_regular(g_self)) msgkit_serve_path(path.c_str(), kRows, 1);
  if (!is_notified(g_self)) return;
  msgkit_on_notification(kNotice, take_notification, nullptr);
  msgkit_on_notification(kNotifyRequest, nullptr, answer_notify_request);
}

void run_application() {
  g_connection = g_notify_connection = g_incarnation << 16;
  register_procedures();
  if (msgkit_stay_connected(kNames[g_self], changed) != ORP_OK) fail("cannot begin");
  ORP_UTIL_TimerAdd(kTick_ms, 0, tick, 0);
  const uint32_t status = OrpUvLoopRun(nullptr, 0);
  if (g_board->stop == 0) fail("the loop ends with {:#x}", status);
  msgkit_disconnect();
  ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
}

// ---- The browser ----

void browse() {
  const uint64_t epoch = g_board->serving;
  if (epoch == 0) return;
  const std::string text = fmt::format("n={}", below(UINT32_MAX));
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = {AF_INET, htons(kHttpPort), {htonl(INADDR_LOOPBACK)}, {}};
  ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
  const std::string answer =
      http_get(fd, fmt::format("/soak/{}/echo?{}", kNames[below(kRegulars)], text));
  if (answer.starts_with("HTTP/1.1 200 ") && answer.ends_with("\r\n\r\n" + text)) {
    return totals().pages.add();
  }
  if (g_board->serving == epoch) {
    fail("HTTP answers \"{:.60}\" though everybody is there", answer);
  }
  totals().pages_refused.add();
}

void run_browser() {
  while (g_board->stop == 0) {
    const uint64_t pause = g_board->pause;
    if (pause != g_board->resumed) {
      g_slot->paused.set(pause);
    } else {
      browse();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace

std::string line_text(uint32_t incarnation, uint64_t number) {
  return fmt::format("soak {} {} {} end", incarnation, number, std::string(number % 61, 'x'));
}

std::string http_get(int connection, const std::string &path) {
  const std::string request =
      "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
  ::send(connection, request.data(), request.size(), MSG_NOSIGNAL);
  std::string answer;
  char bytes[4096];
  for (ssize_t count; (count = ::recv(connection, bytes, sizeof bytes, 0)) > 0;) {
    answer.append(bytes, static_cast<size_t>(count));
  }
  ::close(connection);
  return answer;
}

void run_client(Board *board, uint32_t client, uint32_t incarnation, uint32_t seed) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  g_board = board;
  g_slot = &board->slots[client];
  g_self = client;
  g_incarnation = incarnation;
  g_random.seed(seed * 1000003 + client * 1009 + incarnation);
  if (client == kBrowser) {
    run_browser();
  } else {
    run_application();
  }
  std::exit(0);
}

}  // namespace soak
