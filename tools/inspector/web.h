// The HTTP side: who may ask, and which headers every answer has. The handler makes the answers.
//
// A request without the token is refused, and so is one whose Host header is not the listener's
// address. So somebody else's page in the same browser learns nothing.
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
  bool from_own_page = false;  // its Origin header names this Host
  std::string body;
};

// An answer of unknown length.
class Stream {
 public:
  virtual ~Stream() = default;
  // Waits for the next bytes; "" at the end.
  virtual std::string next() = 0;
};

struct Answer {
  unsigned status = 200;
  std::string type = "application/json";
  std::string body;
  std::unique_ptr<Stream> stream;  // instead of the body
  std::string file;                // the name to store it under; "": it is shown
};

class Web {
 public:
  using Handler = std::function<Answer(const Request &)>;

  // `hosts`, "ADDRESS:PORT", are the Host headers that are served, beside the address to which a
  // connection was made; requests may leave out port 80. The handler is called from several
  // threads, and its exceptions become answers with 500. Throws std::runtime_error.
  Web(servers::UniqueFd listener, std::string token, std::vector<std::string> hosts,
      Handler handler);
  // Waits for all answers: their streams must have ended, or be about to.
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
