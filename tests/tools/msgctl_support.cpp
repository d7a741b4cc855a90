#include "tools/msgctl_support.h"

#include <sstream>

namespace test {

using nlohmann::json;

Output run(const Words &words) {
  return run_program("msgctl", words);
}

std::vector<json> lines_of(const std::string &text) {
  std::vector<json> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(json::parse(line));
  return lines;
}

}  // namespace test
