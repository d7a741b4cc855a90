// Which HTTP requests are served at all: those that call the server by a name of its own, that no
// other site's page sends, and that know the token if there is one.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace msgsvr {

struct HttpGuard {
  std::vector<std::string> hosts = {};  // names of the server, besides its addresses and localhost
  std::string token = {};               // empty: none is asked for
  std::atomic<uint64_t> *refusals = nullptr;  // where to count them; null: nowhere
};

// The headers that count, empty where there is none.
struct HttpOrigin {
  std::string_view host;
  std::string_view origin;
  std::string_view fetch_site;  // Sec-Fetch-Site
  std::string_view authorization;
};

struct HttpRefusal {
  unsigned status;
  const char *why;
};

// Why such a request is not served; none if it is.
std::optional<HttpRefusal> refusal_of(const HttpGuard &guard, const HttpOrigin &request);

// The first line of the file. Throws std::runtime_error if it cannot be read, if others than its
// owner and group may read it, or if that is no token of 16 to 256 characters (RFC 6750, 2.1).
std::string read_token(const std::string &path);

}  // namespace msgsvr
