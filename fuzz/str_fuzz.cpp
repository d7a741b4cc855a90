// Validators, substring removal and request paths, beside plain versions of them.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "msgapi/str.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

template <typename Predicate>
bool all_of(const std::string &text, Predicate predicate) {
  return std::all_of(text.begin(), text.end(), predicate);
}

void validate(const std::string &text, uint32_t number) {
  const bool digits = all_of(text, [](char c) { return c >= '0' && c <= '9'; });
  require((ORP_UTIL_ValidateNumber(text.c_str()) == 1) == (digits && !text.empty()));
  const bool printable = all_of(text, [](char c) { return c >= 0x20 && c <= 0x7F; });
  require((ORP_UTIL_ValidStr(text.c_str()) == 1) == printable);
  require((ORP_UTIL_ValidateLength(text.c_str(), number) == 1) ==
          (!text.empty() && text.size() <= number));
}

void delete_part(const std::string &text, const std::string &part, uint32_t size) {
  std::string expected = text;
  uint32_t count = 0;
  for (size_t at = 0; !part.empty() && (at = expected.find(part, at)) != std::string::npos;
       ++count) {
    expected.erase(at, part.size());
  }
  const std::unique_ptr<char[]> out(new char[size]);
  const uint32_t deleted = ORP_UTIL_DeleteSubStr(text.c_str(), part.c_str(), out.get(), size);
  if (size == 0) return;
  require(deleted == count);
  require(expected.substr(0, size - 1) == out.get());
}

void split(const std::string &path, uint32_t size) {
  const std::unique_ptr<char[]> module(new char[size]{}), function(new char[size]{});
  if (ORP_UTIL_FindModuleAndFuncByUri(path.c_str(), module.get(), size, function.get(), size) ==
          0 &&
      size > 1 && module[0] != '\0') {
    require(path == "/api/" + std::string(module.get()) + "/" + function.get());
  }
}

}  // namespace

// Input: a size, a text, a NUL and another text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const std::string input(reinterpret_cast<const char *>(data) + 1, size - 1);
  const std::string first = input.c_str();
  const std::string second = first.size() < input.size() ? &input[first.size() + 1] : "";

  validate(first, data[0]);
  delete_part(first, second, data[0]);
  split(first, data[0]);
  const std::unique_ptr<char[]> exact(new char[input.size()]);
  std::copy(input.begin(), input.end(), exact.get());
  require((ORP_UTIL_CheckStringTerminated(exact.get(), static_cast<uint32_t>(input.size())) == 1) ==
          (first.size() < input.size()));
  return 0;
}
