// The HTTP side: who may ask, and what every answer carries. What is answered is the handler's.
//
// Nothing is said to a request without the token, or to one whose Host header is another than the
// listener's: a page of somebody else's in the same browser can do neither.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/unique_fd.h"

struct MHD_Daemon;

namespace inspector {

struct Request {
  std::string method;  // "GET" also for HEAD
  std::string path;    // after the token: "v1/status"
  std::map<std::string, std::string> arguments;
  bool from_own_page = false;  // its Origin header says that the page by this Host asks
  std::string body;
};

// An answer that goes on.
class Stream {
 public:
  virtual ~Stream() = default;
  // The next bytes, waiting for them as long as that takes; "" at the end.
  virtual std::string next() = 0;
};

struct Answer {
  unsigned status = 200;
  std::string type = "application/json";
  std::string body;
  std::unique_ptr<Stream> stream;  // instead of the body
  std::string file;                // the name under which it is to be stored, if so
};

class Web {
 public:
  using Handler = std::function<Answer(const Request &)>;

  // `hosts`, "ADDRESS:PORT", are the Host headers that are served beside the address to which a
  // connection was made; port 80 may be left out. The handler is called from several threads, and
  // what it throws is answered with 500. Throws std::runtime_error.
  Web(servers::UniqueFd listener, std::string token, std::vector<std::string> hosts,
      Handler handler);
  // Streams must have ended, or be about to.
  ~Web();
  Web(const Web &) = delete;
  Web &operator=(const Web &) = delete;

 private:
  friend struct WebCallbacks;

  const std::string token_;
  const std::vector<std::string> hosts_;
  const Handler handler_;
  MHD_Daemon *daemon_ = nullptr;
};

}  // namespace inspector
