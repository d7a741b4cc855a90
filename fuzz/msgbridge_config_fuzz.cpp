// The bridge's configuration: a problem names a line of the file and can be printed. A
// configuration that is accepted allows no reserved types and makes topics that can be published
// to.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "msgapi/msg.h"
#include "msgbridge/config.h"

namespace {

void check(bool holds) {
  if (!holds) std::abort();
}

bool is_printable(std::string_view text) {
  return std::ranges::all_of(text, [](unsigned char c) { return c >= 0x20 && c <= 0x7e; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const catalogue::Catalogue types;
  const std::string text(reinterpret_cast<const char *>(data), size);
  try {
    const msgbridge::Config config = msgbridge::read_config(text, types);
    check(!config.brokers.empty() && mqtt::is_topic(config.prefix));
    for (const mqtt::Address &address : config.brokers) {
      check(mqtt::read_address(address.text()).text() == address.text());
    }
    for (const msgbridge::UpRule &rule : config.up) {
      check(mqtt::is_topic(rule.topic.expand({config.prefix, "me", "wan", "a/+#\n\xff"})));
    }
    for (const msgbridge::CallRule &rule : config.down.calls) {
      check(!msgbridge::is_reserved_type(rule.type) && rule.type <= ORP_MSG_TYPE_MASK);
      check(!rule.app.empty() && rule.app.size() < ORP_APP_NAME_SIZE && rule.app != "mic");
    }
  } catch (const catalogue::JsonError &error) {
    const catalogue::Problem problem = catalogue::problem_in("bridge.json", error);
    const auto lines = static_cast<size_t>(std::ranges::count(text, '\n')) + 1;
    check(problem.line >= 1 && problem.line <= lines);
    check(!problem.what.empty() && is_printable(problem.what));
  }
  return 0;
}
