// Publications from a broker. Only what the configuration allows becomes a request; everything else
// is refused with a text that can be shown. Any answer of an application becomes JSON.
//
// Input: the topic, a line feed, then the payload.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <variant>

#include "msgapi/restful.h"
#include "msgbridge/downward.h"
#include "msgbridge/json_text.h"

namespace {

using namespace msgbridge;

void check(bool holds) {
  if (!holds) std::abort();
}

const Config &config(const catalogue::Catalogue &types) {
  static const Config made = read_config(R"({
      "broker": {"addresses": ["mqtt://broker"]}, "gateway": "me",
      "down": {"rest": [{"path": "/dev/**"}, {"method": "put", "path": "/dev/*"}],
               "calls": [{"app": "cms", "type": "0x4242"}]}})",
                                         types);
  return made;
}

void check_json(const std::string &text) {
  check(Json::accept(text) && text.find('\n') == std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const catalogue::Catalogue types;
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  const size_t end = std::min(text.find('\n'), text.size());
  const std::string_view topic = text.substr(0, end);
  const std::string_view payload = text.substr(std::min(end + 1, text.size()));

  const Request request = read_request({topic, payload}, "gw/me", config(types).down, types);
  if (const auto *rest = std::get_if<RestRequest>(&request)) {
    const std::string path = rest->path + "/" + rest->handler;
    check(path.starts_with("/dev/") && (rest->code == 0 || rest->code == 2));
    check(rest->path.size() < ORP_MSG_RESTFUL_FIELD_SIZE && !rest->handler.empty() &&
          rest->handler.size() < ORP_MSG_RESTFUL_FIELD_SIZE);
    check(rest->text.find('\0') == std::string::npos);
  } else if (const auto *call = std::get_if<CallRequest>(&request)) {
    check(call->app == "cms" && call->type == 0x4242);
    check(call->body.empty() || call->body.find('\0') == call->body.size() - 1);
  } else {
    const auto &refusal = std::get<Refusal>(request);
    check_json(refusal_text(refusal.status, refusal.why));
  }
  check(!may_answer_to(topic, "gw/me") || !topic.starts_with("gw/me/"));
  for (const bool mask : {false, true}) {
    check_json(rest_answer_text(payload, mask));
    check_json(call_answer_text(7, payload, mask));
  }
  return 0;
}
