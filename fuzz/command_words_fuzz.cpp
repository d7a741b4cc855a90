// Command lines: whatever their text, the words stay within their block and end with a NUL.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orputil.h"
#include "words.h"

namespace {

void check(bool holds) {
  if (!holds) std::abort();
}

size_t total_length(char **words, uint32_t count) {
  size_t total = 0;
  for (uint32_t i = 0; i < count; ++i) total += std::strlen(words[i]);
  check(words[count] == nullptr);
  return total;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);

  char **args;
  uint32_t count;
  void *symbols;
  if (ORP_UTIL_ParseArgsEx(text.c_str(), &args, &count, &symbols) == 0) {
    check(total_length(args, count) <= text.size());
    UtilFreeSymbols(symbols);
    ORP_UTIL_FreeArgs(args);
  }

  orputil::Command command;
  if (orputil::parse_command(text.c_str(), &command)) {
    size_t length = total_length(command.words, command.count);
    if (command.result_file != nullptr) length += std::strlen(command.result_file);
    check(length <= text.size());
    std::free(command.words);
  }
  return 0;
}
