// What the command line sets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/network.h"
#include "msgapi/msg.h"
#include "msgsvr/account.h"
#include "policy/policy.h"

namespace msgsvr {

struct Options {
  std::string socket_path = ORP_MSG_SERVER_PATH;
  std::string socket_mode = "0666";
  std::string tcp;                         // ADDRESS:PORT, empty for none
  std::vector<servers::Network> tcp_from;  // who is served there; none: everybody
  uint32_t keep_alive_s = 0;
  bool swap_all = false;
  bool confined = false;
  bool log_server = false;  // own log lines go there
  std::vector<std::string> swap_names;
  // What may wait for one client, in bytes.
  size_t queue_limit = 1 << 20;
  // A longer frame is passed on while it arrives, a shorter one when it is whole.
  size_t cut_through = 65536;
  // A sender whose frame is being passed on must go on within this time. The library gives up a
  // message that pauses for a second, and its stream is then out of step for ever.
  uint32_t stall_ms = 500;
  // How long senders wait for a reader that takes next to nothing.
  uint32_t patience_ms = 200;
  // How long hand-over files stay that nobody takes over; 0: for ever.
  uint32_t body_age_s = 86400;
  // In the order of Kept.
  Limits limits = {4096, 16 << 20, 4096, 1024, 4096, 256, 64};

  // The flight recorder: size of its file, 0 for none, and what it keeps of each body.
  uint64_t flight_size = 1 << 20;
  uint32_t flight_body = 0;

  std::string policy = policy::kDefaultFile;  // only this one may be missing

  // Services.
  std::string admin = "/var/run/msgsvr.admin";  // "none" for none
  std::string admin_group;                      // who may use it besides the server's user
  std::string http;                             // ADDRESS:PORT for restful requests, empty for none
  std::vector<std::string> http_hosts;          // names by which it may be called there
  std::string http_token;  // file with the token of those who are served, empty for everybody
  uint32_t http_timeout_ms = 5000;
  std::string applications;  // the file that lists the dynamic applications, empty for none
  std::string login_state = "/var/msgsvr-login.json";
  std::string export_key = "/var/cfm/export.key";
  std::vector<std::string> export_directories = {"/mnt/", "/tmp/"};
  bool factory_mode = false;
};

}  // namespace msgsvr
