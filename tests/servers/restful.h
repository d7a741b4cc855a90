// A message server with HTTP, and an application that serves restful requests.
#pragma once

#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "msgapi/restful.h"
#include "servers/services.h"
#include "support/file.h"
#include "support/message_peer.h"

namespace test {

class Restful : public Services {
 protected:
  // Runs curl beside the test, which plays the application meanwhile. Returns the body, the status
  // and the type of the answer.
  static std::future<std::string> curl(const std::string &path, const std::string &options = "") {
    const std::string command = "curl -sg --max-time 60 -w '|%{http_code}|%{content_type}' " +
                                options + " 'http://127.0.0.1:8080" + path + "' >/var/http";
    return std::async(std::launch::async, [command] {
      [[maybe_unused]] const int status = std::system(command.c_str());
      return contents("/var/http");
    });
  }

  // A busy machine may need long for an answer.
  Restful() { serve({"--http-timeout", "30000"}); }

  // Starts the server, or starts it again, with these options.
  void serve(std::vector<std::string> options) {
    if (server_ != nullptr) server_->stop(SIGTERM);
    options.insert(options.end(), {"--http", "8080"});
    start(options);
    app_ = std::make_unique<RawClient>("status");
    enter("/dev");
  }

  // An application of another board, which shares no files with the server, and serves "/board".
  RawClient serve_board(std::vector<std::string> options = {}) {
    options.insert(options.end(), {"--http-timeout", "30000", "--tcp", "127.0.0.1:7070"});
    serve(std::move(options));
    RawClient board("board", uint16_t{7070});
    board.send({.type = ORP_MSG_RESTFUL_REGISTER, .body = padded("/board", 7)});
    board.drain();
    return board;
  }

  void enter(const std::string &texts) {
    app_->send({.type = ORP_MSG_RESTFUL_REGISTER, .body = texts + '\0'});
    app_->drain();
  }

  // The application's next request, with its body even if that came in a hand-over file.
  Frame next_request() {
    Frame request = app_->read();
    if ((request.type & ORP_MSG_TYPE_BODY_IN_FILE) != 0) {
      const std::string path = request.body.c_str();
      request.type &= ORP_MSG_TYPE_MASK;
      request.body.resize(std::filesystem::file_size(path));
      std::ifstream(path).read(request.body.data(),
                               static_cast<std::streamsize>(request.body.size()));
      std::filesystem::remove(path);
    }
    return request;
  }

  static ORP_MSG_RESTFUL_REQ_ST head_of(const Frame &frame) {
    ORP_MSG_RESTFUL_REQ_ST head{};
    EXPECT_GE(frame.body.size(), sizeof head + 1);
    frame.body.copy(reinterpret_cast<char *>(&head), sizeof head);
    return head;
  }
  static std::string text_of(const Frame &frame) {
    return frame.body.substr(sizeof(ORP_MSG_RESTFUL_REQ_ST)).c_str();
  }
  // Answers like the library's dispatcher.
  static void answer(RawClient *client, const Frame &request, const std::string &text) {
    client->answer(request, request.data, text + '\0');
  }

  // The same with the text in a file, whose path it returns.
  std::string answer_in_file(const Frame &request, const std::string &text) {
    const std::string path = std::string(ORP_MSG_HAND_OVER_PREFIX) + "5";
    std::ofstream(path) << text << '\0';
    app_->send({.type = request.type | ORP_MSG_TYPE_BODY_IN_FILE,
                .to = "mic",
                .body = padded(path, ORP_MSG_HAND_OVER_PATH_SIZE),
                .sequence = request.sequence});
    return path;
  }

  static std::string status_in(const std::string &got) { return got.substr(got.find('|') + 1, 3); }
  static std::string status_of(const std::string &path, const std::string &options = "") {
    return status_in(curl(path, options).get());
  }

  // The request that a GET of `path` becomes, as "PATH HANDLER"; the HTTP status if there is none.
  std::string target_of(const std::string &path) {
    auto got = curl(path);
    while (got.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
      const auto request = app_->receive(10);
      if (!request) continue;
      answer(app_.get(), *request, "");
      EXPECT_EQ("200", status_in(got.get()));
      return std::string(head_of(*request).aucPath) + " " + head_of(*request).aucHandler;
    }
    return status_in(got.get());
  }

  std::unique_ptr<RawClient> app_;
};

}  // namespace test
