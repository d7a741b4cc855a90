// The message server's answers about itself, over its admin socket (docs/admin-interface.md).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "msgctl/context.h"
#include "msgctl/output.h"

namespace msgctl {

inline constexpr const char *kAdminPath = "/var/run/msgsvr.admin";

class Admin {
 public:
  explicit Admin(const Context &context) : timeout_ms_(context.timeout_ms) {}

  // What the server says at that place, "/v1/clients". Throws a Failure that says why not.
  Json get(const std::string &place) const;
  void remove(const std::string &place) const;

  // The list that a member of the answer holds.
  std::vector<Json> list(const std::string &place, const char *member) const;

 private:
  std::string ask(const char *method, const std::string &place) const;

  uint32_t timeout_ms_;
};

// Members of what a server said, with their default where they are missing or of another kind.
std::string text_at(const Json &json, const char *member);
double number_at(const Json &json, const char *member);
uint64_t count_at(const Json &json, const char *member);
bool flag_at(const Json &json, const char *member);
const Json &object_at(const Json &json, const char *member);

}  // namespace msgctl
