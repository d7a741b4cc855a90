// What applications ask of the device itself: whether it is in the factory (0x70A), and to reboot
// it (0x500E).

#include "common/log_line.h"
#include "msgsvr/services.h"

namespace msgsvr {
namespace {

class DeviceRequests final : public Service {
 public:
  explicit DeviceRequests(Server *server) {
    server->serve(ORP_MSG_FACTORY_MODE, [server](Client &from, const Message &request) {
      server->outbox().reply(from, request, server->options().factory_mode ? 1 : 0);
    });
    server->serve(ORP_MSG_REBOOT, [](Client &from, const Message &request) {
      // This server runs on development machines: it only says what a device would do.
      servers::log_line("{} asks for a reboot, mode {}; not executed", from.label(),
                        request.header.ulMsgData);
    });
  }
};

}  // namespace

std::unique_ptr<Service> make_device_requests(Server *server) {
  return std::make_unique<DeviceRequests>(server);
}

}  // namespace msgsvr
