// Reading files in tests.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

namespace test {

// The whole file; "" when there is none.
inline std::string contents(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace test
