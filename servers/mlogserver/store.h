// The modules' log files.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "common/unique_fd.h"

namespace mlogserver {

class Store {
 public:
  explicit Store(std::string directory) : directory_(std::move(directory)) {}
  Store(const Store &) = delete;
  Store &operator=(const Store &) = delete;

  // Adds a line to the file of its module; the bytes have left the process when this returns.
  // Lines that do not name a module properly go to the file "other".
  void append(std::string_view line);

  // False unless everything that was appended is on the disk.
  bool sync();

 private:
  int file_of(const std::string &module);

  std::string directory_;
  std::map<std::string, servers::UniqueFd> files_;
};

}  // namespace mlogserver
