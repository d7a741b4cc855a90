// Policies of the message server: a problem points into the file and can be printed, and what is
// taken decides every question, by a rule that stands in the file.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "msgapi/messages.h"
#include "policy/policy.h"

namespace {

using policy::Action;
using policy::Decision;
using policy::Question;
using policy::Who;

void check(bool holds) {
  if (!holds) std::abort();
}

bool is_printable(std::string_view text) {
  return std::ranges::all_of(text, [](unsigned char c) { return c >= 0x20 && c != 0x7f; });
}

void ask(const policy::Policy &policy, const Who &who, const Question &question, size_t lines) {
  const Decision decision = policy.decide(who, question);
  check(decision.line <= lines);
  if (!decision.allowed) check(policy.limits(question.action));
  check(is_printable(policy.source_of(decision)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const catalogue::Catalogue types;
  const std::string text(reinterpret_cast<const char *>(data), size);
  const auto lines = static_cast<size_t>(std::ranges::count(text, '\n')) + 1;
  try {
    const policy::Policy policy(text, "file.json", types, 7);
    // The name and the path are the file's own words, so that they meet its patterns.
    const std::string_view word = std::string_view(text).substr(text.size() / 2, 11);
    for (const Who &who : {Who{0, {0}, {}}, Who{65534, {65534, 7}, {}},
                           Who{Who::kUnknown, {}, "192.168.7.1:5050"}}) {
      for (size_t i = 0; i < policy::kActions; ++i) {
        ask(policy, who, {static_cast<Action>(i), word, ORP_MSG_EVENT_WAN, "GET"}, lines);
        ask(policy, who, {static_cast<Action>(i), "wifi", ORP_MSG_EXIT, "PUT"}, lines);
      }
    }
  } catch (const policy::BadPolicy &bad) {
    check(bad.problem.line >= 1 && bad.problem.line <= lines);
    check(!bad.problem.what.empty() && is_printable(bad.problem.what));
  }
  return 0;
}
