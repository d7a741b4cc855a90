#include "filter.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <stdexcept>

#include "msgapi/log.h"

namespace mlog {
namespace {

std::optional<uint32_t> parse_level(std::string_view text) {
  const std::string name(text);
  for (const uint32_t level : {0u, 1u, 2u, 4u, 8u}) {
    if (name == std::to_string(level)) return level;
  }
  const uint32_t level = MlogGetLogLevel(name.c_str());
  if (level != MLOG_LEVEL_NONE) return level;
  std::string upper;
  for (const char c : name) upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  if (!name.empty() && std::string_view("NONE").starts_with(upper)) return MLOG_LEVEL_NONE;
  return std::nullopt;
}

}  // namespace

std::optional<LevelRange> parse_levels(std::string_view text) {
  const size_t dots = text.find("..");
  if (dots == std::string_view::npos) {
    const std::optional<uint32_t> level = parse_level(text);
    return level ? std::optional(LevelRange{0, *level}) : std::nullopt;
  }
  const std::optional<uint32_t> from = parse_level(text.substr(0, dots));
  const std::optional<uint32_t> to = parse_level(text.substr(dots + 2));
  if (!from || !to) return std::nullopt;
  return LevelRange{std::min(*from, *to), std::max(*from, *to)};
}

Pattern::Pattern(const std::string &expression, bool match_case) {
  const bool has_capitals = std::any_of(expression.begin(), expression.end(),
                                        [](char c) { return c >= 'A' && c <= 'Z'; });
  const int flags = REG_EXTENDED | REG_NOSUB | (match_case || has_capitals ? 0 : REG_ICASE);
  auto compiled = std::make_unique<regex_t>();
  const int error = ::regcomp(compiled.get(), expression.c_str(), flags);
  if (error != 0) {
    std::array<char, 200> reason{};
    ::regerror(error, compiled.get(), reason.data(), reason.size());
    throw std::runtime_error("\"" + expression + "\" is no regular expression: " + reason.data());
  }
  compiled_.reset(compiled.release());
}

bool Pattern::matches(std::string_view text) const {
  text_ = text;
  return ::regexec(compiled_.get(), text_.c_str(), 0, nullptr, 0) == 0;
}

bool Filter::wants(const Entry &entry, std::optional<int64_t> time_ms) const {
  if (since_ms && (!time_ms || *time_ms < *since_ms)) return false;
  if (until_ms && time_ms && *time_ms > *until_ms) return false;
  if (entry.has_head && (entry.level < levels.from || entry.level > levels.to)) return false;
  if (!modules.empty()) {
    if (!entry.has_head) return false;
    const std::string module(entry.module);
    const auto matches = [&](const std::string &glob) {
      return ::fnmatch(glob.c_str(), module.c_str(), 0) == 0;
    };
    if (std::none_of(modules.begin(), modules.end(), matches)) return false;
  }
  return !pattern || pattern->matches(entry.message);
}

}  // namespace mlog
