// Files of sections and keys:
//
//   key = value
//   [section]
//   key = value value
#pragma once

#include <istream>
#include <string>
#include <vector>

namespace servers {

struct IniItem {
  std::string section;  // empty for what comes before the first
  std::string name;     // empty where the section begins
  std::vector<std::string> values;
};

// In the file's order. Throws std::runtime_error for a file that cannot be read.
std::vector<IniItem> read_ini(std::istream &file);

}  // namespace servers
