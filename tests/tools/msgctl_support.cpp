#include "tools/msgctl_support.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <thread>

namespace test {

using nlohmann::json;

Output run(const Words &words) {
  return run_program("msgctl", words);
}

std::vector<json> lines_of(const std::string &text) {
  std::vector<json> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(json::parse(line));
  return lines;
}

Admin::Admin(std::map<std::string, std::string> answers)
    : answers_(std::move(answers)), fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/var/run/msgsvr.admin");
  ::unlink(address.sun_path);
  EXPECT_EQ(0, ::bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address));
  EXPECT_EQ(0, ::listen(fd_, 100));
  thread_ = std::thread([this] { serve(); });
}

Admin::~Admin() {
  ::shutdown(fd_, SHUT_RDWR);
  thread_.join();
  ::close(fd_);
  ::unlink("/var/run/msgsvr.admin");
}

void Admin::serve() {
  for (int peer; (peer = ::accept(fd_, nullptr, nullptr)) >= 0; ::close(peer)) {
    std::string request;
    char buffer[4096];
    while (request.find("\r\n\r\n") == std::string::npos) {
      const ssize_t got = ::read(peer, buffer, sizeof buffer);
      if (got <= 0) break;
      request.append(buffer, static_cast<size_t>(got));
    }
    const std::string line = request.substr(0, request.find(" HTTP"));
    requests_.push_back(line);
    const auto answer = answers_.find(line);
    std::string text =
        answer == answers_.end() ? "HTTP/1.1 404 Not Found\r\n" : "HTTP/1.1 200 OK\r\n";
    const std::string body = answer == answers_.end() ? R"({"error": "not here"})" : answer->second;
    text +=
        "Connection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    ::send(peer, text.data(), text.size(), MSG_NOSIGNAL);
  }
}

json client(int id, const std::string &name, int queued) {
  return {{"id", id},
          {"name", name},
          {"pid", 100 + id},
          {"program", "/usr/sbin/" + name},
          {"uid", 0},
          {"user", "root"},
          {"gid", 0},
          {"address", nullptr},
          {"connected_at", 1767225600.25},
          {"connected_s", 12.5},
          {"swapped", false},
          {"in", {{"messages", id}, {"bytes", 40}}},
          {"out", {{"messages", 1}, {"bytes", 48}}},
          {"queued_bytes", queued},
          {"queue_limit", 1048576},
          {"lost", 0},
          {"slow", false},
          {"held", false}};
}

}  // namespace test
