// The demo's ruthless sender: `demo_flood NAME COUNT` sends NAME so many messages of 1000 bytes as
// fast as it can, and says how many the server had to give up.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "messages.h"
#include "msgapi.h"

namespace {

constexpr uint32_t kSize = 1000;
constexpr uint32_t kQuiet_ms = 300;

}  // namespace

int main(int argc, char **argv) {
  const size_t count = argc == 3 ? std::strtoul(argv[2], nullptr, 10) : 0;
  if (count == 0) {
    std::fprintf(stderr, "usage: demo_flood NAME COUNT\n");
    return 2;
  }
  if (ORP_MSG_InitWithoutHandle("flood") != ORP_OK) return 1;

  auto *message = static_cast<ORP_MSG_HEADER_ST *>(std::calloc(1, ORP_MSG_HEADER_SIZE + kSize));
  if (message == nullptr) return 1;
  const std::unique_ptr<ORP_MSG_HEADER_ST, decltype(&std::free)> owner(message, &std::free);
  for (size_t i = 0; i < count; ++i) {
    ORP_MSG_SimpleBuilder(message, argv[1], kReading, static_cast<uint32_t>(i));
    message->ulDataLen = kSize;
    if (ORP_MSG_Send(message) != ORP_OK) return 1;
  }

  // Of each message that is lost its sender is told.
  size_t lost = 0;
  for (ORP_MSG_HEADER_ST *notice = nullptr; ORP_MSG_ReceiveManual(&notice, kQuiet_ms) == ORP_OK;
       std::free(notice)) {
    lost += notice->ulMsgType == ORP_MSG_UNDELIVERABLE;
  }
  std::printf("flood: %zu messages sent to %s, %zu reported lost\n", count, argv[1], lost);
  return 0;
}
