// A page of any site may have its reader's browser send requests to this device. Such a request
// says whose page sends it (Origin, Sec-Fetch-Site), or, when the site's name has been made to lead
// here, calls the server by that name (Host): a browser that got an answer then would hand it to
// the page.

#include "msgsvr/http_guard.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "common/unique_fd.h"

namespace msgsvr {
namespace {

constexpr size_t kShortestToken = 16;
constexpr size_t kLongestToken = 256;

bool same_text(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// Without the port.
std::string name_in(std::string_view host) {
  if (host.starts_with('[')) {
    const size_t end = host.find(']');
    return std::string(host.substr(1, end == host.npos ? end : end - 1));
  }
  std::string name(host.substr(0, host.find(':')));
  if (name.ends_with('.')) name.pop_back();
  return name;
}

bool is_own(const HttpGuard &guard, std::string_view host) {
  const std::string name = name_in(host);
  std::array<char, sizeof(in6_addr)> address;
  return same_text(name, "localhost") || ::inet_pton(AF_INET, name.c_str(), address.data()) == 1 ||
         ::inet_pton(AF_INET6, name.c_str(), address.data()) == 1 ||
         std::ranges::any_of(guard.hosts,
                             [&name](const std::string &each) { return same_text(each, name); });
}

bool is_same_origin(std::string_view origin, std::string_view host) {
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (origin.starts_with(scheme) && same_text(origin.substr(scheme.size()), host)) return true;
  }
  return false;
}

// Takes the same time wherever they differ, so that the time tells nothing about the token.
bool is_token(std::string_view given, std::string_view token) {
  unsigned char difference = given.size() == token.size() ? 0 : 1;
  for (size_t i = 0; i < given.size(); ++i) {
    difference |= static_cast<unsigned char>(given[i] ^ token[i % token.size()]);
  }
  return difference == 0;
}

bool is_token_character(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-._~+/=").find(c) != std::string_view::npos;
}

}  // namespace

std::optional<HttpRefusal> refusal_of(const HttpGuard &guard, const HttpOrigin &request) {
  // Only a client of HTTP/1.0, which no browser is, sends none.
  if (!request.host.empty() && !is_own(guard, request.host)) {
    return HttpRefusal{421, "this server has another name\n"};
  }
  const bool foreign_page = request.fetch_site == "cross-site" || request.fetch_site == "same-site";
  if (foreign_page || (!request.origin.empty() && !is_same_origin(request.origin, request.host))) {
    return HttpRefusal{403, "a page of another origin asks\n"};
  }
  if (guard.token.empty()) return std::nullopt;
  constexpr std::string_view kScheme = "Bearer ";
  const std::string_view given = request.authorization;
  if (!same_text(given.substr(0, kScheme.size()), kScheme) ||
      !is_token(given.substr(kScheme.size()), guard.token)) {
    return HttpRefusal{401, "the token is missing or wrong\n"};
  }
  return std::nullopt;
}

std::string read_token(const std::string &path) {
  const auto fail = [&path](const std::string &why) -> void {
    throw std::runtime_error(path + ": " + why);
  };
  const servers::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) fail(std::strerror(errno));
  if (!S_ISREG(status.st_mode)) fail("is no regular file");
  if ((status.st_mode & S_IRWXO) != 0) fail("others may read the token: chmod o= " + path);
  std::array<char, kLongestToken + 2> bytes;
  const ssize_t count = ::read(file.get(), bytes.data(), bytes.size());
  if (count < 0) fail(std::strerror(errno));
  std::string token(bytes.data(), static_cast<size_t>(count));
  token = token.substr(0, token.find('\n'));
  if (token.ends_with('\r')) token.pop_back();
  if (token.size() < kShortestToken || token.size() > kLongestToken ||
      !std::ranges::all_of(token, is_token_character)) {
    fail("its first line is no token of 16 to 256 letters, digits and -._~+/=");
  }
  return token;
}

}  // namespace msgsvr
