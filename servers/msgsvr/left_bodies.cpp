#include "msgsvr/left_bodies.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include "common/log_line.h"
#include "msgapi/msg.h"

namespace msgsvr {
namespace {

constexpr std::chrono::seconds kMostPeriod = std::chrono::hours(1);
// Bounds what somebody who fills the directory can make the server remember.
constexpr size_t kMostFiles = 10000;

constexpr std::string_view kPrefix = ORP_MSG_HAND_OVER_PREFIX;
constexpr size_t kSlash = kPrefix.rfind('/');

struct Close {
  void operator()(DIR *directory) const { ::closedir(directory); }
};

}  // namespace

LeftBodies::LeftBodies(servers::EventLoop *loop, std::chrono::seconds age)
    : loop_(loop), age_(age) {
  sweep();
}

void LeftBodies::plan() {
  const auto period = std::clamp(age_ / 4, std::chrono::seconds(1), kMostPeriod);
  loop_->after(period, [this] { sweep(); });
}

void LeftBodies::sweep() {
  plan();
  const std::string path(kPrefix.substr(0, kSlash));
  const std::unique_ptr<DIR, Close> directory(::opendir(path.c_str()));
  if (directory == nullptr) return;

  const int place = ::dirfd(directory.get());
  const auto now = Clock::now();
  size_t removed = 0;
  std::map<File, Clock::time_point> there;
  while (const dirent *entry = ::readdir(directory.get())) {
    struct stat info;
    if (!std::string_view(entry->d_name).starts_with(kPrefix.substr(kSlash + 1)) ||
        ::fstatat(place, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(info.st_mode)) {
      continue;
    }
    const File file(info.st_ino,
                    int64_t{info.st_ctim.tv_sec} * 1'000'000'000 + info.st_ctim.tv_nsec);
    const auto known = seen_.find(file);
    const auto since = known == seen_.end() ? now : known->second;
    if (now - since >= age_ && ::unlinkat(place, entry->d_name, 0) == 0) {
      ++removed;
    } else if (there.size() < kMostFiles) {
      there.emplace(file, since);
    }
  }
  seen_ = std::move(there);
  if (removed > 0) {
    servers::log_line("{}: removed {} body files that nobody took over within {} s", path, removed,
                      age_.count());
  }
}

}  // namespace msgsvr
