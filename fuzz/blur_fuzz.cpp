// The finders of personal data, compared with regexec() and the plain expressions on any text.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "log/blur.h"
#include "log/posix_blur.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  static const test::PosixPatterns posix;
  // No NUL behind the block: AddressSanitizer reports a byte read too many.
  const std::vector<char> block(data, data + size);
  const std::string text(block.data(), ::strnlen(block.data(), block.size()));
  const std::string_view view(block.data(), text.size());

  const bool equal =
      posix.all_searches(text, [&](test::Pattern pattern, size_t from, const test::Match &theirs) {
        const test::Match ours = msgapi::blur::find(pattern, view, from);
        return ours.length == theirs.length && (ours.length == 0 || ours.start == theirs.start);
      });
  if (!equal) std::abort();

  std::vector<char> blurred = block;
  msgapi::blur::blur_log_text(blurred);
  const std::string expected = posix.blur_log_text(text);
  if (expected != std::string(blurred.data(), text.size())) std::abort();
  for (size_t i = text.size(); i < size; ++i) {
    if (blurred[i] != block[i]) std::abort();
  }
  return 0;
}
