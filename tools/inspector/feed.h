// Reads the traffic: from the flight recorder of a running server, or from a file of the past.
#pragma once

#include <optional>
#include <string>
#include <thread>

#include "flight/reader.h"
#include "inspector/bus.h"

namespace inspector {

// Reads a capture or a flight file from its beginning to its end. At a damage it stops: the bus's
// state tells of it, and the records before it are there. Throws a Failure for any other file.
void load_past(Bus *bus, const std::string &path);

// Follows the flight recorder at `path`, from one server to the next, in a thread of its own that
// uses a bounded share of a processor. Ends when the bus does.
class Feed {
 public:
  Feed(Bus *bus, std::string path);
  ~Feed();
  Feed(const Feed &) = delete;
  Feed &operator=(const Feed &) = delete;

 private:
  void run();
  // Sleeps until the next turn. False when the bus ends.
  bool rest();
  bool open();
  void turn();
  bool read_some();
  void look_after_server();

  Bus *bus_;
  const std::string path_;
  std::optional<flight::Reader> reader_;
  bool damaged_ = false;
  uint64_t read_ = 0;  // records of this reader
  std::thread thread_;
};

}  // namespace inspector
