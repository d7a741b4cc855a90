// Policies of the message server: a problem names a line of the file and can be printed. A policy
// that is accepted decides every question by the rules of the file, however the file is laid out.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "common/printable.h"
#include "msgapi/messages.h"
#include "policy/policy.h"

namespace {

using nlohmann::json;
using policy::Action;
using policy::Decision;
using policy::Policy;
using policy::Question;
using policy::Who;

void check(bool holds) {
  if (!holds) std::abort();
}

// The file as another reader sees it, and what it decides.
struct File {
  json contents;
  size_t lines;
  Policy policy;
  Policy laid_out_anew;
};

void ask(const File &file, const Who &who, const Question &question) {
  const Decision decision = file.policy.decide(who, question);
  if (!decision.allowed) check(file.policy.limits(question.action));
  if (decision.rule == Decision::kBuiltIn) {
    check(decision.line == 0 && question.action == Action::kService);
  } else if (decision.rule == Decision::kDefault) {
    check(decision.line == 0);
    check(decision.allowed ==
          (file.contents["default"] == "allow" && question.action != Action::kSpeakFor));
  } else {
    check(decision.line >= 1 && decision.line <= file.lines);
    const json &rule = file.contents["rules"].at(decision.rule - 1);
    check(rule.at(decision.allowed ? "allow" : "deny") == policy::word_of(question.action));
  }

  const Decision again = file.laid_out_anew.decide(who, question);
  check(again.allowed == decision.allowed && again.rule == decision.rule);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const catalogue::Catalogue types;
  const std::string text(reinterpret_cast<const char *>(data), size);
  const auto lines = static_cast<size_t>(std::ranges::count(text, '\n')) + 1;
  try {
    Policy policy(text, "file.json", types, 7);
    json contents = json::parse(text);
    Policy laid_out_anew(contents.dump(1), "file.json", types, 7);
    check(policy.size() == contents["rules"].size());
    const File file{std::move(contents), lines, std::move(policy), std::move(laid_out_anew)};
    // The name and the path are taken from the file, so that they may match its patterns.
    const std::string_view word = std::string_view(text).substr(text.size() / 2, 11);
    for (const Who &who : {Who{0, {0}, {}}, Who{65534, {65534, 7}, {}},
                           Who{Who::kUnknown, {}, "192.168.7.1:5050"}}) {
      for (size_t i = 0; i < policy::kActions; ++i) {
        ask(file, who, {static_cast<Action>(i), word, ORP_MSG_EVENT_WAN, "GET"});
        ask(file, who, {static_cast<Action>(i), "wifi", ORP_MSG_EXIT, "PUT"});
      }
    }
  } catch (const policy::BadPolicy &bad) {
    check(bad.problem.line >= 1 && bad.problem.line <= lines);
    check(!bad.problem.what.empty() && servers::printable(bad.problem.what) == bad.problem.what);
  }
  return 0;
}
