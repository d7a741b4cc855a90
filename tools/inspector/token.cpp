#include "inspector/token.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "common/unique_fd.h"
#include "common/write_all.h"

namespace inspector {
namespace {

using servers::UniqueFd;

constexpr size_t kTokenBytes = 16;

std::string new_token() {
  std::array<unsigned char, kTokenBytes> bytes{};
  if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw std::system_error(errno, std::generic_category(), "no random numbers");
  }
  std::string token;
  for (const unsigned char byte : bytes) token += fmt::format("{:02x}", byte);
  return token;
}

bool is_token(const std::string &text) {
  return text.size() == 2 * kTokenBytes &&
         text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// The file's token, if it has one and no other user can read or write it.
std::string read_token(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != ::geteuid() ||
      (status.st_mode & 077) != 0) {
    return {};
  }
  char text[2 * kTokenBytes + 1];
  const ssize_t size = ::read(fd, text, sizeof text);
  const std::string token(text, size < 0 ? 0 : static_cast<size_t>(size));
  return is_token(token) ? token : std::string();
}

}  // namespace

std::string token_of(const std::string &path, std::string *warning) {
  if (path.empty()) return new_token();
  constexpr int kFlags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  if (const UniqueFd there{::open(path.c_str(), O_RDONLY | kFlags)}) {
    std::string token = read_token(there.get());
    if (!token.empty()) return token;
    *warning = path +
               ": this is not ours alone, or holds no token; the address holds for this "
               "start only";
    return new_token();
  }
  std::string token = new_token();
  const UniqueFd made(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | kFlags, 0600));
  if (made && servers::write_all(made.get(), token)) return token;
  *warning =
      fmt::format("{}: {}; the address holds for this start only", path, std::strerror(errno));
  // A file with a part of a token would be refused at every start.
  if (made) ::unlink(path.c_str());
  return token;
}

}  // namespace inspector
