// Asks the message server about itself over its admin socket (docs/admin-interface.md).
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

  // The server's answer for a place like "/v1/clients". Throws a Failure with the reason.
  Json get(const std::string &place) const;
  void remove(const std::string &place) const;

  // The list in one member of the answer.
  std::vector<Json> list(const std::string &place, const char *member) const;

 private:
  std::string ask(const char *method, const std::string &place) const;

  uint32_t timeout_ms_;
};

// Members of an answer; empty or 0 where they are missing or of another kind.
std::string text_at(const Json &json, const char *member);
double number_at(const Json &json, const char *member);
uint64_t count_at(const Json &json, const char *member);
bool flag_at(const Json &json, const char *member);
const Json &object_at(const Json &json, const char *member);

}  // namespace msgctl
