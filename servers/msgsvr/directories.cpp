// A receiver may be another user than the sender, and removes the file from the directory, so all
// users need the right to write there. The sticky bit keeps files for their owners; a server that
// runs as root gives each file to its receiver (hand_over.h). A server of another user cannot, and
// does without the bit: receivers then read files as "others". There is no set-group-ID bit,
// because it would make all receivers members of the files' group, to which the mode gives nothing.

#include "msgsvr/directories.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "common/log_line.h"
#include "msgapi/msg.h"

namespace msgsvr {
namespace {

using servers::log_line;

constexpr const char *kGroup = "msgapi";
constexpr mode_t kForGroup = 0770;
constexpr mode_t kSticky = 01000;
constexpr mode_t kForServer = 0755;

std::string directory() {
  constexpr std::string_view kPrefix = ORP_MSG_HAND_OVER_PREFIX;
  return std::string(kPrefix.substr(0, kPrefix.rfind('/')));
}

void make(const std::string &path) {
  const group *members = ::getgrnam(kGroup);
  if (::mkdir(path.c_str(), kForServer) != 0) {
    if (errno == EEXIST) return;
    log_line("{}: {}; bodies above 2048 bytes cannot be passed", path, std::strerror(errno));
    return;
  }
  if (members == nullptr) {
    // Whatever the umask.
    ::chmod(path.c_str(), kForServer);
    log_line("{}: made for this user alone, because there is no group {}", path, kGroup);
  } else if (::chown(path.c_str(), static_cast<uid_t>(-1), members->gr_gid) != 0 ||
             ::chmod(path.c_str(), ::geteuid() == 0 ? kForGroup | kSticky : kForGroup) != 0) {
    log_line("{}: not given to the group {}: {}", path, kGroup, std::strerror(errno));
  }
}

}  // namespace

void prepare_body_directory() {
  const std::string path = directory();
  make(path);

  std::array<char, PATH_MAX> real;
  if (::realpath(path.c_str(), real.data()) != nullptr && path != real.data()) {
    log_line(
        "{} leads to {}: receivers refuse bodies above 2048 bytes there; /var/run must be a "
        "real directory",
        path, real.data());
  }
}

}  // namespace msgsvr
