// Answers what a browser asks of the inspector: the page, and JSON below v1/ (docs/inspector.md).
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "inspector/bus.h"
#include "inspector/web.h"
#include "msgctl/context.h"

namespace inspector {

struct Settings {
  std::string log_directory;
  bool masked = true;
  bool past = false;        // a file is shown: nothing is asked of a running server
  bool allow_send = false;  // messages may be sent
};

// `bus` and `context` must outlive this and its streams.
class Answers {
 public:
  Answers(Bus *bus, const msgctl::Context *context, Settings settings);

  Answer operator()(const Request &request) const;

 private:
  Answer get(const Request &request) const;
  Answer status() const;
  Answer records(const Request &request) const;
  Answer events(const Request &request) const;
  Answer summary(const Request &request) const;
  Answer exported(const Request &request) const;
  Answer logs(const Request &request) const;
  Answer clients() const;
  Json recorded_clients() const;
  Answer send(const Request &request) const;

  Selection selection_of(const Request &request) const;
  uint64_t now_ns() const;

  Bus *bus_;
  const msgctl::Context *context_;
  const Settings settings_;
  const std::string session_;  // random, so that a page notices another process
  std::shared_ptr<std::atomic<int>> streams_ = std::make_shared<std::atomic<int>>(0);
};

}  // namespace inspector
