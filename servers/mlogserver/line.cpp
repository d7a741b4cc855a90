#include "line.h"

#include <algorithm>
#include <string>

#include "msgapi/log.h"

namespace mlogserver {
namespace {

// Takes "[text]" off the front of `line`.
bool cut_bracket(std::string_view *line, std::string_view *text) {
  if (!line->starts_with('[')) return false;
  const size_t end = line->find(']');
  if (end == std::string_view::npos) return false;
  *text = line->substr(1, end - 1);
  line->remove_prefix(end + 1);
  return true;
}

// The bytes of the multi-byte UTF-8 character at the beginning of `text` (RFC 3629, section 4); 0
// when there is none.
size_t utf8_length(std::string_view text) {
  const auto byte = [&](size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u;
  };
  const auto continues = [&](size_t i) { return (byte(i) & 0xC0u) == 0x80u; };
  const unsigned first = byte(0);
  const unsigned second = byte(1);
  if (first < 0xC2 || first > 0xF4 || !continues(1)) return 0;
  if (first < 0xE0) return 2;
  // Neither longer than needed nor a surrogate nor above U+10FFFF.
  if ((first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
      (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F) || !continues(2)) {
    return 0;
  }
  if (first < 0xF0) return 3;
  return continues(3) ? 4 : 0;
}

}  // namespace

bool is_module_name(std::string_view name) {
  const auto is_plain = [](char c) { return c > ' ' && c < 0x7F && c != '/'; };
  return !name.empty() && name.size() < 98 && name.front() != '.' &&
         !name.starts_with(MLOG_SERVER_NAME) && !name.starts_with("mlogcfg") &&
         std::all_of(name.begin(), name.end(), is_plain);
}

void add_clean_text(std::string_view text, std::string *out) {
  while (text.ends_with('\n')) text.remove_suffix(1);
  while (!text.empty()) {
    const auto first = static_cast<unsigned char>(text.front());
    if (const size_t length = utf8_length(text); length > 0) {
      const bool c1 = first == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0;
      out->append(c1 ? "?" : text.substr(0, length));
      text.remove_prefix(length);
      continue;
    }
    if (first == '\n') {
      out->append("\n\t");
    } else {
      const bool control = (first < 0x20 && first != '\t') || (first >= 0x7F && first < 0xA0);
      out->push_back(control ? '?' : text.front());
    }
    text.remove_prefix(1);
  }
}

bool parse_line_head(std::string_view line, LineHead *head) {
  const char *begin = line.data();
  std::string_view uptime;
  std::string_view level;
  if (!cut_bracket(&line, &uptime) || !cut_bracket(&line, &head->module) ||
      !cut_bracket(&line, &level) || !line.starts_with(':') || !is_module_name(head->module)) {
    return false;
  }
  head->level = MlogGetLogLevel(std::string(level).c_str());
  head->end = static_cast<size_t>(line.data() - begin);
  return true;
}

}  // namespace mlogserver
