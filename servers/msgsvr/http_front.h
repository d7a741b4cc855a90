// An HTTP server on the loop that hands on whole requests and takes the answers later.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "common/event_loop.h"
#include "common/unique_fd.h"

struct MHD_Connection;
struct MHD_Daemon;

namespace msgsvr {

struct HttpRequest {
  std::string method;
  std::string path;   // decoded
  std::string query;  // as it was sent, without the "?"
  std::string body;
};

class HttpFront {
 public:
  // Called for every whole request; answer(id, ...) ends it, at once or later.
  using Handler = std::function<void(uint64_t id, const HttpRequest &request)>;
  // The client has gone before it was answered.
  using Abandoned = std::function<void(uint64_t id)>;

  // Serves the connections of `listener`; a request body of more than `longest_body` bytes is
  // answered with 413. Throws std::runtime_error.
  HttpFront(servers::EventLoop *loop, servers::UniqueFd listener, size_t longest_body,
            Handler handler, Abandoned abandoned);
  ~HttpFront();

  // An unknown `id` is ignored.
  void answer(uint64_t id, unsigned status, std::string_view text, const char *content_type);

 private:
  struct Exchange;
  struct Watch;

  void run();
  int receive(MHD_Connection *connection, const char *method, const char *path, const char *upload,
              size_t *upload_size, Exchange *exchange);
  int respond(MHD_Connection *connection, const Exchange &exchange);

  servers::EventLoop *loop_;
  size_t longest_body_;
  Handler handler_;
  Abandoned abandoned_;
  std::unique_ptr<Watch> watch_;
  MHD_Daemon *daemon_ = nullptr;
  std::map<uint64_t, Exchange *> waiting_;
  uint64_t last_id_ = 0;
  servers::EventLoop::TimerId timer_ = 0;
  bool resumed_ = false;  // since the library was last run

  friend struct HttpCallbacks;
};

}  // namespace msgsvr
