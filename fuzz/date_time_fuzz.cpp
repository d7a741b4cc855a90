// Dates, beside a regular expression for the accepted form.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>

#include "msgapi/status.h"
#include "msgapi/time.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

uint32_t expected_status(const std::string &text) {
  static const std::regex kForm(
      "([0-9]{4}-[0-9]{2}-[0-9]{2}|[0-9]{8})T[0-9]{2}:[0-9]{2}:[0-9]{2}([^]*)");
  static const std::regex kOffset("[0-9]{2}[^0-9][0-9]{2}");
  if (text.empty()) return 0;
  if (text.size() > 43) return ORP_ERR_ARGUMENT;
  std::smatch parts;
  if (text.size() < 17 || text.size() > 40 || !std::regex_match(text, parts, kForm)) return 1;

  const std::string zone = parts[2];
  if (zone.empty() || zone == "Z") return 0;
  if (zone[0] != '.') {
    return (zone[0] == '+' || zone[0] == '-') && std::regex_match(zone.substr(1), kOffset) ? 0 : 1;
  }
  if (zone.find('Z') != std::string::npos) return 0;
  const size_t sign = zone.find(zone.find('+') != std::string::npos ? '+' : '-');
  return sign != std::string::npos && std::regex_match(zone.substr(sign + 1), kOffset) ? 0 : 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static FILE *const quiet = std::freopen("/dev/null", "w", stdout);
  require(quiet != nullptr);
  const std::string input(reinterpret_cast<const char *>(data), size);
  const std::string first = input.substr(0, input.find('\0'));
  const size_t end = first.size() < input.size() ? first.size() + 1 : input.size();
  const std::string second = input.substr(end).c_str();

  ORP_UTIL_DATE_TIME_ST at = {1, 1, 1, 1, 1, 1};
  require(ORP_UTIL_UCTTimeFormatCheck(first.c_str(), &at) == expected_status(first));
  require(at.ulYear <= 9999 && at.ulMonth <= 99 && at.ulSecond <= 99);

  uint32_t seconds = 0, order = 0, back_seconds = 0, back_order = 0;
  const uint32_t status = ORP_UTIL_GetDifTime(first.c_str(), second.c_str(), &seconds, &order);
  require(order <= 1);
  if (status == 0 &&
      ORP_UTIL_GetDifTime(second.c_str(), first.c_str(), &back_seconds, &back_order) == 0) {
    require(seconds == back_seconds);
  }
  return 0;
}
