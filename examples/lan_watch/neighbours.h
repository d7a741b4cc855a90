// The hosts that the kernel has heard of, kept up to date by its own announcements.
#pragma once

#include <map>
#include <set>
#include <span>
#include <string>

namespace lan_watch {

// Listens on routing netlink. Hosts come from the neighbour tables (with their IP addresses) and
// from the forwarding tables of bridges (without).
class Neighbours {
 public:
  // Throws std::system_error when the kernel cannot be asked.
  Neighbours();
  ~Neighbours();
  Neighbours(const Neighbours &) = delete;
  Neighbours &operator=(const Neighbours &) = delete;

  // The socket, which becomes readable when there is news. It stays this object's.
  int fd() const { return fd_; }

  // Takes in all news that are there.
  void update();

  // IP addresses by MAC address, in text.
  const std::map<std::string, std::set<std::string>> &hosts() const { return hosts_; }

 private:
  void ask(int family);
  void take_message(std::span<const char> message);

  int fd_;
  std::map<std::string, std::set<std::string>> hosts_;
};

}  // namespace lan_watch
