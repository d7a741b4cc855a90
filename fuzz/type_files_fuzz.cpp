// Files in which applications describe their message types: a problem points into the file and can
// be printed, and what is taken can be found again.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "catalogue/type_files.h"

namespace {

void check(bool holds) {
  if (!holds) std::abort();
}

bool is_printable(std::string_view text) {
  return std::ranges::all_of(text, [](unsigned char c) { return c >= 0x20 && c != 0x7f; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  catalogue::Catalogue types;
  const size_t before = types.types().size();

  if (const auto problem = types.add(text, "file.json")) {
    check(types.types().size() == before);
    const auto lines = static_cast<size_t>(std::ranges::count(text, '\n')) + 1;
    check(problem->line >= 1 && problem->line <= lines);
    check(!problem->what.empty() && is_printable(problem->what));
    return 0;
  }
  for (const catalogue::MessageType &type : types.types().subspan(before)) {
    check(types.find(type.number)->name == type.name);
    check(types.number_of(type.name) == type.number);
    check(is_printable(type.meaning) && is_printable(type.from) && is_printable(type.to));
  }
  // Each type stands once.
  check(types.types().size() == before || types.add(text, "file.json"));
  return 0;
}
