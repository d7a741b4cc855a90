// Clients of several users, for tests of what the message server allows each of them.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "servers/services.h"
#include "support/file.h"
#include "support/message_peer.h"
#include "support/network.h"

namespace test {

inline constexpr const char *kPolicyFile = "/var/policy.json";
inline constexpr uid_t kUser = 1234;
inline constexpr gid_t kGroup = 4321;

class Users : public Services {
 protected:
  void SetUp() override {
    if (!can_be_others()) GTEST_SKIP() << "an ordinary user's sandbox has no other users";
  }

  // The kernel keeps a user for each thread (credentials(7)) and passes on that of the one that
  // connects.
  template <typename Do>
  static void as(uid_t user, const std::vector<gid_t> &groups, Do what) {
    std::thread([&] {
      const bool changed = ::syscall(SYS_setgroups, groups.size(), groups.data()) == 0 &&
                           ::syscall(SYS_setresgid, user, user, user) == 0 &&
                           ::syscall(SYS_setresuid, user, user, user) == 0;
      what(changed);
    }).join();
  }

  static bool can_be_others() {
    bool can = false;
    as(kUser, {kGroup}, [&](bool changed) { can = changed; });
    return can;
  }

  // A client that is connected but not registered; its messages name `name` as their sender.
  static std::unique_ptr<RawClient> stranger(const std::string &name,
                                             const std::vector<gid_t> &groups = {},
                                             uid_t of = kUser) {
    std::unique_ptr<RawClient> client;
    as(of, groups,
       [&](bool) { client = std::make_unique<RawClient>(name, RawClient::Register::kNo); });
    return client;
  }

  static std::unique_ptr<RawClient> user(const std::string &name,
                                         const std::vector<gid_t> &groups = {}, uid_t of = kUser) {
    auto client = stranger(name, groups, of);
    EXPECT_TRUE(registers(client.get()));
    return client;
  }

  // A refused registration is answered under an empty name.
  static bool registers(RawClient *client) {
    const auto reply = client->enter();
    return reply && reply->to == client->name();
  }

  static void write(const std::string &rules, const std::string &otherwise = "allow") {
    std::ofstream(kPolicyFile) << "{\"default\": \"" << otherwise << "\", \"rules\": [\n"
                               << rules << "]}";
  }

  void start_with(const std::string &rules, std::vector<std::string> arguments = {}) {
    write(rules);
    arguments.insert(arguments.end(), {"--policy", kPolicyFile});
    start(arguments);
  }

  // The server's HTTP status for a request with curl. The answer's body is in /var/body, its head
  // in /var/head.
  static std::string status_of(const std::string &options, const std::string &path = "/x") {
    run("curl -sg --max-time 20 -o /var/body -D /var/head -w '%{http_code}' " + options +
        " http://127.0.0.1:8080" + path + " >/var/http");
    return contents("/var/http");
  }

  // Ends the server and returns its whole log.
  std::string log() {
    EXPECT_EQ(0, server_->stop(SIGTERM));
    return server_->output();
  }

  static size_t count(const std::string &text, const std::string &part) {
    size_t found = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++found;
    return found;
  }
};

}  // namespace test
