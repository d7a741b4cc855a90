// The message server's router and the services that look into bodies. Three connections write what
// the input says, pass descriptors, end in either way, and read or not; one only reads. They have
// names from the start, so each may be its own or another's receiver. Whatever arrives, the reader
// gets whole frames, and no exception reaches the server's loop.

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/event_loop.h"
#include "common/log_line.h"
#include "msgsvr/server.h"
#include "msgsvr/services.h"
#include "support/frame.h"

// Replaces the log.
void servers::write_log_line(std::string_view) noexcept {}

namespace {

using namespace std::string_literals;
using servers::UniqueFd;

UniqueFd connect_to(msgsvr::Server *server) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
  // Little room, so that queues are used.
  const int size = 4096;
  ::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  server->adopt(UniqueFd(ends[0]));
  return UniqueFd(ends[1]);
}

std::string registration(std::string_view name) {
  return test::Frame{.type = ORP_MSG_REGISTER}.bytes(name);
}

// Reads what is there.
void read_all(const UniqueFd &fd, std::string *out) {
  char bytes[4096];
  ssize_t count;
  while ((count = ::read(fd.get(), bytes, sizeof bytes)) > 0) {
    if (out != nullptr) out->append(bytes, static_cast<size_t>(count));
  }
}

void check_frames(std::string_view bytes) {
  while (!bytes.empty()) {
    if (bytes.size() < msgsvr::kHeaderSize) std::abort();
    const msgsvr::Header header = msgsvr::load_header(bytes.data(), false);
    if (!msgsvr::AppName::from_field(header.aucSendApp)) std::abort();
    if (header.ulDataLen > bytes.size() - msgsvr::kHeaderSize) std::abort();
    bytes.remove_prefix(msgsvr::kHeaderSize + header.ulDataLen);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  msgsvr::Options options;
  options.queue_limit = 8192;
  options.cut_through = 300;
  options.patience_ms = 1;
  options.stall_ms = 1;
  options.swap_names = {"s"};
  options.limits = {8, 4096, 16, 16, 16, 16, 16};
  options.login_state.clear();
  servers::EventLoop loop;
  msgsvr::Server server(&loop, options);
  const auto registered = msgsvr::make_registration(&server);
  const auto events = msgsvr::make_events(&server);
  const auto restful = msgsvr::make_restful(&server);
  const auto points = msgsvr::make_sync_points(&server);
  const auto logins = msgsvr::make_login_control(&server);

  const UniqueFd reader = connect_to(&server);
  const std::string entry = registration("reader");
  if (::write(reader.get(), entry.data(), entry.size()) < 0) std::abort();
  loop.turn(0);
  std::string received;
  std::array<UniqueFd, 3> writers;

  // Each step: which writer, what to do, how many bytes.
  std::span<const uint8_t> input(data, size);
  while (input.size() >= 3) {
    const size_t which = input[0] % writers.size();
    UniqueFd &writer = writers[which];
    const uint8_t action = input[1] % 16;
    const size_t count = std::min<size_t>(input[2], input.size() - 3);
    const auto bytes = input.subspan(3, count);
    input = input.subspan(3 + count);
    if (!writer) {
      writer = connect_to(&server);
      // One of the writers has no name.
      const std::string name = registration(std::array{"", "self", "other"}[which]);
      if (which > 0 && ::write(writer.get(), name.data(), name.size()) < 0) std::abort();
    }
    if (action == 5 || action == 6) {
      const std::vector<int> descriptors(action - 4u, STDERR_FILENO);
      test::send_with_descriptors(writer.get(), std::string(bytes.begin(), bytes.end()) + "\0"s,
                                  descriptors);
    } else if (action == 7) {
      // Sends as long as the socket takes it.
      for (int i = 0; i < 64; ++i) {
        if (::send(writer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) break;
        if (i % 8 == 7) loop.turn(0);
      }
    } else if (::send(writer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
      writer.reset();
    }
    if (action == 1) writer.reset();
    if (action == 8 && writer) ::shutdown(writer.get(), SHUT_WR);
    if (action == 2) read_all(reader, &received);
    if (action == 3) loop.turn(2);
    if (action == 4 && writer) read_all(writer, nullptr);
    loop.turn(0);
  }

  // Nothing may stay half done after its sender has gone.
  for (UniqueFd &writer : writers) writer.reset();
  for (int quiet = 0; quiet < 3;) {
    const size_t before = received.size();
    loop.turn(0);
    read_all(reader, &received);
    quiet = received.size() == before ? quiet + 1 : 0;
  }
  check_frames(received);
  if (loop.failures() != 0) std::abort();
  return 0;
}
