// Message bodies as tools show them. Whatever they hold, the line can be printed on a terminal, the
// JSON can be written, and masking only replaces characters.
//
// Input: one byte for the type, one of choices (1: the body was cut, 2: it is in a file, 4: it is
// an answer's), then the body.

#include <cstdint>
#include <string>

#include "common/printable.h"
#include "decisions.h"
#include "msgapi/messages.h"
#include "traffic/decode.h"
#include "traffic/mask.h"

namespace {

using fuzz::check;

void show(const traffic::Message &message, const catalogue::Catalogue &types) {
  const std::string line = traffic::body_line(message, types);
  check(servers::printable(line) == line);
  const traffic::Json json = traffic::body_json(message, types);
  const std::string text = json.dump(-1, ' ', false, traffic::Json::error_handler_t::replace);
  check(traffic::Json::accept(text));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const catalogue::Catalogue types;
  if (size < 2) return 0;
  const auto known = types.types();
  traffic::Message message;
  message.header.ulMsgType = data[0] < known.size() ? known[data[0]].number
                             : data[0] % 2 == 0     ? ORP_MSG_RESTFUL_REQUEST
                                                    : 0x1234;
  message.body.assign(reinterpret_cast<const char *>(data) + 2, size - 2);
  const bool cut = (data[1] & 1) != 0;
  message.length = static_cast<uint32_t>(size - 2 + (cut ? 100 : 0));
  message.body_in_file = (data[1] & 2) != 0;
  message.answers = (data[1] & 4) != 0 ? 1 : 0;

  show(message, types);
  const size_t length = message.body.size();
  traffic::mask_body(message.body, cut);
  check(message.body.size() == length);
  show(message, types);
  return 0;
}
