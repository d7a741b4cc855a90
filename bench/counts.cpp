// counts --list | --calls NAME | NAME: fixed work whose instructions are counted.
//
// `valgrind --tool=callgrind --collect-atstart=no counts NAME` collects kTimes repetitions of that
// work and nothing else; `--calls` prints the system calls of one repetition. Unlike times, these
// numbers do not depend on what else the machine does. bench/counts.py runs all of it.

#include <arpa/nameser.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "msgapi.h"
#include "msgsvr/server.h"
#include "msgsvr/services.h"
#include "support/system_calls.h"
#include "util/dns/packet_support.h"

namespace {

constexpr int kTimes = 200;  // counts.py divides by it

void check(bool fine, const char *what) {
  if (fine) return;
  std::fprintf(stderr, "counts: %s\n", what);
  std::exit(1);
}

struct Pair {
  Pair() { check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair"); }
  int ends[2];
};

ORP_MSG_HEADER_ST *message_of(uint32_t body_size) {
  alignas(8) static char memory[ORP_MSG_HEADER_SIZE + 2048];
  auto *message = reinterpret_cast<ORP_MSG_HEADER_ST *>(memory);
  ORP_MSG_SimpleBuilder(message, "other", 0x1234, 1);
  message->ulDataLen = body_size;
  return message;
}

// Takes what has arrived, with one system call of the harness.
void take(int fd) {
  char buffer[8192];
  check(::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT) > 0, "nothing has arrived");
}

void put(int fd, std::string_view bytes) {
  check(::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT) == static_cast<ssize_t>(bytes.size()),
        "send");
}

std::string frame(const char *sender, const char *receiver, uint32_t type, uint32_t data,
                  std::string_view body) {
  ORP_MSG_HEADER_ST header;
  ORP_MSG_SimpleBuilder(&header, receiver, type, data);
  std::snprintf(header.aucSendApp, sizeof header.aucSendApp, "%s", sender);
  header.ulDataLen = static_cast<uint32_t>(body.size());
  return std::string(reinterpret_cast<char *>(&header), sizeof header) + std::string(body);
}

using Work = std::function<void()>;

// ---- The client --------------------------------------------------------------------------------

// Gives the process a connection and returns the peer's end of it.
int connect_context() {
  static const Pair pair;
  g_stMsgCtx.slSocket = pair.ends[0];
  std::strcpy(g_stMsgCtx.aucAppName, "self");
  return pair.ends[1];
}

Work send() {
  const int peer = connect_context();
  return [=] {
    check(ORP_MSG_Send(message_of(256)) == ORP_OK, "ORP_MSG_Send");
    take(peer);
  };
}

Work receive() {
  const int peer = connect_context();
  const std::string bytes = frame("other", "self", 0x1234, 1, std::string(256, 'x'));
  return [=] {
    put(peer, bytes);
    ORP_MSG_HEADER_ST *message = nullptr;
    check(ORP_MSG_ReceiveManual(&message, 1000) == ORP_OK, "ORP_MSG_ReceiveManual");
    std::free(message);
  };
}

Work request() {
  const int peer = connect_context();
  const std::string bytes = frame("other", "self", 0x1234, 1, std::string(256, 'x'));
  return [=] {
    put(peer, bytes);
    ORP_MSG_HEADER_ST *answer = nullptr;
    check(ORP_MSG_SendAndRecv(message_of(256), &answer, 1000) == ORP_OK, "ORP_MSG_SendAndRecv");
    std::free(answer);
    take(peer);
  };
}

// Dispatches one message among twenty registered types.
Work dispatch() {
  for (uint32_t type = 0x1230; type < 0x1244; ++type) {
    ORP_MSG_RegMsgProc(
        type, [](ORP_MSG_HEADER_ST *) {}, 1, nullptr);
  }
  return [] { ORP_MSG_DefaultMsgProcs(message_of(256)); };
}

Work log_line() {
  ::mkdir("/var/mlog", 0770);
  static const int server = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/var/mlog/mlogServer");
  ::unlink(address.sun_path);
  check(::bind(server, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0, "bind");
  return [] {
    MlogPrint("counts", MLOG_LEVEL_INFO, "lease %s for %s", "192.168.1.10", "00:11:22:33:44:55");
    take(server);
  };
}

// The work of the log server for each line.
Work masked_ring_line() {
  static MlogTarget target = {256 * 1024, MlogFileConstructor("/var/tmp/counts.log", 256 * 1024)};
  check(target.file != nullptr, "MlogFileConstructor");
  return [] {
    char line[] = "[123456][dhcps][INFO]:lease 192.168.1.10 for 00:11:22:33:44:55\n";
    check(MlogFileWrite(&target, line, sizeof line - 1) == 0, "MlogFileWrite");
  };
}

// ---- The server --------------------------------------------------------------------------------

class World {
 public:
  World() {
    options_.login_state.clear();
    server_ = std::make_unique<msgsvr::Server>(&loop_, options_);
    for (const auto make : {msgsvr::make_registration, msgsvr::make_events}) {
      services_.push_back(make(server_.get()));
    }
  }

  int connect(const std::string &name) {
    const Pair pair;
    ::fcntl(pair.ends[0], F_SETFL, O_NONBLOCK);
    server_->adopt(servers::UniqueFd(pair.ends[0]));
    put(pair.ends[1], frame(name.c_str(), "", ORP_MSG_REGISTER, 0, ""));
    for (int i = 0; i < 3; ++i) turn();
    take(pair.ends[1]);
    return pair.ends[1];
  }

  void turn() { loop_.turn(0); }

 private:
  servers::EventLoop loop_;
  msgsvr::Options options_;
  std::unique_ptr<msgsvr::Server> server_;
  std::vector<std::unique_ptr<msgsvr::Service>> services_;
};

Work server_request() {
  const auto world = std::make_shared<World>();
  const int asker = world->connect("asker"), servant = world->connect("servant");
  const std::string question = frame("asker", "servant", 0x1234, 1, std::string(256, 'q'));
  const std::string answer = frame("servant", "asker", 0x1234, 1, std::string(256, 'a'));
  return [=] {
    put(asker, question);
    world->turn();
    take(servant);
    put(servant, answer);
    world->turn();
    take(asker);
  };
}

Work server_event() {
  const auto world = std::make_shared<World>();
  const int publisher = world->connect("publisher");
  std::vector<int> subscribers;
  for (int i = 0; i < 10; ++i) {
    const std::string name = "sub" + std::to_string(i);
    subscribers.push_back(world->connect(name));
    put(subscribers.back(), frame(name.c_str(), "", ORP_MSG_SUBSCRIBE, ORP_MSG_EVENT_WAN,
                                  (name + std::string(12, '\0')).substr(0, 12)));
    world->turn();
  }
  const std::string event = frame("publisher", "", ORP_MSG_EVENT_WAN, 0, std::string(256, 'e'));
  return [=] {
    put(publisher, event);
    world->turn();
    for (const int each : subscribers) take(each);
  };
}

// ---- The loop ----------------------------------------------------------------------------------

// One iteration with one readable descriptor among `count`, and with `timers` that are not due.
Work loop_turn(int count, int timers) {
  OrpUvLoop *loop = OrpUvLoopGetDefault();
  for (int i = 0; i < count; ++i) {
    const Pair pair;
    if (i == 0) put(pair.ends[1], "x");
    auto *watcher = static_cast<OrpUvIo *>(std::calloc(1, sizeof(OrpUvIo)));
    check(
        OrpUvIoInit(loop, watcher, pair.ends[0],
                    [](OrpUvIo *, uint32_t) { OrpUvLoopStop(OrpUvLoopGetDefault()); }) == ORP_OK &&
            OrpUvIoStart(watcher, ORP_UV_READABLE) == ORP_OK,
        "OrpUvIoStart");
  }
  for (int i = 0; i < timers; ++i) {
    check(ORP_UTIL_TimerAdd(
              3600000, 0, [](ORP_WORD) {}, 0) != nullptr,
          "ORP_UTIL_TimerAdd");
  }
  return [=] { OrpUvLoopRun(nullptr, 0); };
}

// ---- Text and data -----------------------------------------------------------------------------

Work dns_walk() {
  const auto packet = std::make_shared<PacketOwner>(make_packet(captures::kPoolReply));
  return [=] {
    ORP_DNS_RR_ST record;
    for (const uint8_t *place = ORP_DNS_PacketGetFirstRR(packet->get()); place != nullptr;
         place = ORP_DNS_PacketGetNextRR(packet->get(), place)) {
      if (ORP_DNS_PacketGetValuesOfRR(packet->get(), place, &record, nullptr) != ORP_DNS_OK) break;
    }
  };
}

Work url() {
  return [] {
    uint32_t protocol, port;
    char *host, *path;
    check(ORP_UTIL_ParseUrl("https://router.lan:8443/a/b c?d=e&f=g", &protocol, &host, &port,
                            &path) == 1,
          "ORP_UTIL_ParseUrl");
    std::free(host);
    std::free(path);
    std::free(ORP_UTIL_UrlEncode("name=a value & another/one?"));
  };
}

Work charset() {
  return [] {
    static const char text[] =
        "Gr\xc3\xbc\xc3\x9f"
        "e aus \xe5\x8c\x97\xe4\xba\xac und anderswo";
    uint16_t units[64];
    char back[128];
    uint32_t count = 64, size = sizeof back;
    CL_Utf8ToUcs2(text, sizeof text - 1, units, &count);
    CL_Ucs2ToUtf8(units, count, back, &size);
  };
}

Work dm_message() {
  return [] {
    void *body = nullptr;
    ORP_DMMSG_Builder(&body, "mic", 0);
    for (int i = 0; i < 10; ++i) ORP_DMMSG_AppendItem(&body, 0, "name", "value-of-item", 14);
    const void *cursor = nullptr;
    ORP_DMMSG_ITEM_ST item;
    int items = 0;
    while (ORP_DMMSG_GetItemEx(body, &item, &cursor) == 0) ++items;
    check(items == 10, "ten items");
    ORP_DMMSG_Free(body);
  };
}

struct Named {
  const char *name;
  std::function<Work()> prepare;
};

const Named kWorks[] = {
    {"charset", charset},
    {"dispatch", dispatch},
    {"dm-message", dm_message},
    {"dns-walk", dns_walk},
    {"log-line", log_line},
    {"log-line-masked", masked_ring_line},
    {"loop-1-fd", [] { return loop_turn(1, 0); }},
    {"loop-100-fds", [] { return loop_turn(100, 0); }},
    {"loop-1000-timers", [] { return loop_turn(1, 1000); }},
    {"receive", receive},
    {"request", request},
    {"send", send},
    {"server-event-to-10", server_event},
    {"server-request", server_request},
    {"url", url},
};

}  // namespace

int main(int count, char **words) {
  const std::string_view first = count > 1 ? words[1] : "";
  if (first == "--list") {
    for (const Named &each : kWorks) std::puts(each.name);
    return 0;
  }
  const bool calls = first == "--calls";
  const std::string_view name = calls && count > 2 ? words[2] : first;
  for (const Named &each : kWorks) {
    if (name != each.name) continue;
    const Work work = each.prepare();
    if (calls) {
      std::printf("%zu\n", test::system_calls([] {}, work).size());
      return 0;
    }
    for (int i = 0; i < 3; ++i) work();
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < kTimes; ++i) work();
    CALLGRIND_TOGGLE_COLLECT;
    std::printf("%d\n", kTimes);
    return 0;
  }
  std::fputs("usage: counts --list | [--calls] NAME\n", stderr);
  return 2;
}
