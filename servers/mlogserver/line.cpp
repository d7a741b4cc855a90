#include "line.h"

#include <algorithm>
#include <string>

#include "common/printable.h"
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
    // Most texts are plain from their beginning to their end.
    const auto plain = std::ranges::find_if_not(text, [](char c) { return c >= ' ' && c <= '~'; });
    if (plain != text.begin()) {
      out->append(text.begin(), plain);
      text.remove_prefix(static_cast<size_t>(plain - text.begin()));
      continue;
    }
    if (const size_t length = servers::printable_length(text); length > 0) {
      out->append(text.substr(0, length));
      text.remove_prefix(length);
      continue;
    }
    const auto byte = [text](size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char first = byte(0);
    const bool c1 = first == 0xC2 && text.size() > 1 && byte(1) >= 0x80 && byte(1) < 0xA0;
    if (first == '\n') {
      out->append("\n\t");
    } else {
      const bool control = (first < 0x20 && first != '\t') || (first >= 0x7F && first < 0xA0);
      out->push_back(control || c1 ? '?' : text.front());
    }
    text.remove_prefix(c1 ? 2 : 1);
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
