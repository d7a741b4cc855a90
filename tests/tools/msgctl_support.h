// Runs msgctl like a shell, and plays the programs that it talks to.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "support/message_peer.h"
#include "support/process.h"

namespace test {

using Words = std::vector<std::string>;

constexpr uint32_t kOwnType = 0x1234;

// Runs msgctl with these words. The output includes standard error.
Output run(const Words &words);

// The JSON value on each line.
std::vector<nlohmann::json> lines_of(const std::string &text);

// A fixture with a message server.
class Msgctl : public testing::Test {
 protected:
  void SetUp() override { start(); }

  void start(const Words &arguments = {}) {
    server_ = std::make_unique<Process>("msgsvr", arguments);
    ASSERT_TRUE(server_->wait_for("ready")) << server_->output();
  }

  std::unique_ptr<Process> server_;
};

// Answers requests in a thread until it is destroyed.
class Application {
 public:
  using Answer = std::function<void(RawClient &, const Frame &)>;
  explicit Application(const std::string &name, Answer answer)
      : client_(name), thread_([this, answer = std::move(answer)] {
          while (!stop_) {
            if (const auto frame = client_.receive(20)) answer(client_, *frame);
          }
        }) {}
  ~Application() {
    stop_ = true;
    thread_.join();
  }

 private:
  RawClient client_;
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

}  // namespace test
