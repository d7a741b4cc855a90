// What the server does itself, each in a file of its own. Each service registers the message types
// that it handles and lives as long as the server.
#pragma once

#include <memory>

#include "msgsvr/server.h"

namespace msgsvr {

// A service's state, kept by whoever runs the server.
class Service {
 public:
  virtual ~Service() = default;
};

// Registration and keep-alives, the count of processes under a name, and orderly exit.
std::unique_ptr<Service> make_registration(Server *server);

// Event subscriptions, and events to whoever has subscribed.
std::unique_ptr<Service> make_events(Server *server);

}  // namespace msgsvr
