#include "catalogue/statuses.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iterator>
#include <utility>

namespace catalogue {
namespace {

using table::kStatuses;

constexpr std::string_view kFamilyWords[] = {
    "messages", "store",   "configuration", "items", "events",  "login", "processes", "paths",
    "blur",     "bridges", "notify",        "dns",   "charset", "log",   "sockets",   "plain"};
static_assert(std::size(kFamilyWords) == static_cast<size_t>(StatusFamily::kPlain) + 1);

}  // namespace

std::span<const StatusNumber> statuses() {
  return kStatuses;
}

std::vector<StatusNumber> meanings(int64_t number) {
  std::vector<StatusNumber> found;
  std::ranges::copy_if(kStatuses, std::back_inserter(found),
                       [&](const StatusNumber &status) { return status.number == number; });
  return found;
}

std::string status_text(int64_t number) {
  if (number < 0x10000) return std::to_string(number);
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(number));
  return text;
}

std::string describe_status(int64_t number, StatusFamily family) {
  const StatusNumber *known = find_status(number, family);
  const std::string text = status_text(number);
  if (known == nullptr) return text;
  const std::string head =
      known->name.empty() ? text : std::string(known->name) + " (" + text + ")";
  return head + ": " + std::string(known->sentence);
}

std::optional<int64_t> status_number_of(std::string_view text) {
  for (const StatusNumber &status : kStatuses) {
    if (!text.empty() && text == status.name) return status.number;
  }
  const bool is_hex = text.starts_with("0x") || text.starts_with("0X");
  if (is_hex) text.remove_prefix(2);
  if (is_hex && text.starts_with('-')) return std::nullopt;
  int64_t number = 0;
  const char *end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, is_hex ? 16 : 10);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

std::string_view family_word(StatusFamily family) {
  return kFamilyWords[static_cast<size_t>(family)];
}

}  // namespace catalogue
