// Takes decisions from a fuzzer's input, a byte for each. After the input's end all are 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

namespace fuzz {

// Ends the run and names the caller's line, unless `holds`.
inline void check(bool holds, const char *file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (holds) return;
  std::fprintf(stderr, "%s:%d: this must hold\n", file, line);
  std::abort();
}

class Decisions {
 public:
  Decisions(const uint8_t *data, size_t size) : input_(data, size) {}

  bool at_end() const { return input_.empty(); }
  uint8_t byte() {
    if (input_.empty()) return 0;
    const uint8_t first = input_.front();
    input_ = input_.subspan(1);
    return first;
  }
  // Less than `limit`, which is at most 256.
  size_t below(size_t limit) { return byte() % limit; }
  bool one_in(size_t count) { return below(count) == 0; }
  template <typename List>
  const auto &one_of(const List &list) {
    return list[below(std::size(list))];
  }
  // Up to `longest` of the characters of `alphabet`.
  std::string text(std::string_view alphabet, size_t longest) {
    std::string made;
    for (size_t length = below(longest + 1); length > 0; --length) made += one_of(alphabet);
    return made;
  }

 private:
  std::span<const uint8_t> input_;
};

}  // namespace fuzz
