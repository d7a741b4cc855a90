// What the server does itself, each in a file of its own. Each service registers the message types
// that it handles and lives as long as the server.
#pragma once

#include <memory>
#include <vector>

#include "msgsvr/server.h"

namespace msgsvr {

struct Inventory;

// A service's state. Whoever runs the server owns it.
class Service {
 public:
  virtual ~Service() = default;
  // Adds to the inventory what this service keeps for clients.
  virtual void list(Inventory *) const {}
};
using Services = std::vector<std::unique_ptr<Service>>;

// Registration and keep-alives, the count of processes under a name, and orderly exit.
std::unique_ptr<Service> make_registration(Server *server);

// Event subscriptions, and events to whoever has subscribed.
std::unique_ptr<Service> make_events(Server *server);

// Paths that applications serve, for other applications and for HTTP clients.
std::unique_ptr<Service> make_restful(Server *server);

// Applications that are started when somebody connects to them. Throws std::runtime_error for a bad
// configuration file.
std::unique_ptr<Service> make_dynamic_apps(Server *server);

// Named points at which processes wait for each other.
std::unique_ptr<Service> make_sync_points(Server *server);

// Failed logins, and who may not log in for a while.
std::unique_ptr<Service> make_login_control(Server *server);

// Saving, exporting, importing and resetting the configuration store.
std::unique_ptr<Service> make_config_manager(Server *server);

// The factory mode, and reboots.
std::unique_ptr<Service> make_device_requests(Server *server);

// Answers questions about the server on a socket of its own, which it removes at its end. Throws
// std::runtime_error.
std::unique_ptr<Service> make_admin(Server *server, const Services *services);

}  // namespace msgsvr
