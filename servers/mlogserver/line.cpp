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

}  // namespace

bool is_module_name(std::string_view name) {
  const auto is_plain = [](char c) { return c > ' ' && c < 0x7F && c != '/'; };
  return !name.empty() && name.size() < 98 && name.front() != '.' &&
         std::all_of(name.begin(), name.end(), is_plain);
}

bool parse_line_head(std::string_view line, LineHead *head) {
  std::string_view uptime;
  std::string_view level;
  if (!cut_bracket(&line, &uptime) || !cut_bracket(&line, &head->module) ||
      !cut_bracket(&line, &level) || !line.starts_with(':') || !is_module_name(head->module)) {
    return false;
  }
  head->level = MlogGetLogLevel(std::string(level).c_str());
  return true;
}

}  // namespace mlogserver
