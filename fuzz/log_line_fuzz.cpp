// Lines that any process may send to the log server. The module in a line names a file below the
// server's directory, and the text that is written begins no other line and controls no terminal.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "decisions.h"
#include "mlogserver/line.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using fuzz::check;
  // A block of its own: AddressSanitizer reports a byte read too many.
  const std::vector<char> block(data, data + size);
  const std::string_view line(block.data(), block.size());

  mlogserver::LineHead head{};
  if (mlogserver::parse_line_head(line, &head)) {
    check(head.end <= line.size() && line.substr(head.end).starts_with(':'));
    check(!head.module.empty() && head.module.find('/') == head.module.npos);
    check(head.module.front() != '.' && line.find(head.module) != line.npos);
  }

  std::string text = "before";
  mlogserver::add_clean_text(line, &text);
  check(text.starts_with("before"));
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    check(byte != 0x7f && (byte >= 0x20 || byte == '\t' || byte == '\n'));
    if (byte == '\n') check(text.substr(i + 1).starts_with('\t'));
    // A control character of C1.
    if (byte == 0xc2) check(i + 1 == text.size() || (text[i + 1] & 0xe0) != 0x80);
  }
  return 0;
}
