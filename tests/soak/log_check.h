// Checks that every log line is where it must be.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "board.h"

namespace soak {

class LogCheck {
 public:
  // Adds what `client` wrote in its life `incarnation` since the last call for it: `done` lines,
  // and one more if it was killed in the middle.
  void add(uint32_t client, uint32_t incarnation, const Lines &lines);
  void log_server_killed() { ++kills_; }

  // Looks for all of these in the ring files and on the clients' standard error, after the log
  // server has been flushed. A line may be missing only if it was in the socket of a log server
  // that was killed. Returns what is wrong, or "".
  std::string verify();

  uint64_t found() const { return found_; }
  uint64_t told() const { return told_; }
  uint64_t lost() const { return lost_; }

 private:
  struct Life {
    uint32_t client, incarnation;
    uint64_t first, done, begun;
    std::vector<Flushed> flushed;
  };

  std::vector<Life> lives_;
  std::map<std::pair<uint32_t, uint32_t>, uint64_t> verified_;  // last line by client and life
  uint64_t kills_ = 0;
  uint64_t found_ = 0, told_ = 0, lost_ = 0;
};

// The file of a client's or server's standard output and error.
std::string output_path(const std::string &name);

}  // namespace soak
