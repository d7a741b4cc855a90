#include "servers/msgbridge/broker.h"

#include <gtest/gtest.h>
#include <mqtt_protocol.h>

#include <algorithm>
#include <chrono>
#include <fstream>

#include "mqtt/client.h"
#include "support/soak.h"

namespace test {
namespace {

constexpr std::chrono::milliseconds kPatience(kPatience_ms);

}  // namespace

std::unique_ptr<Process> start_broker(uint16_t port, const std::string &settings) {
  const std::string file = "/var/broker" + std::to_string(port) + ".conf";
  std::ofstream(file) << "user root\nmax_queued_messages 0\nlistener " << port << " 127.0.0.1\n"
                      << settings;
  auto broker = std::make_unique<Process>(kBrokerProgram, std::vector<std::string>{"-c", file});
  EXPECT_TRUE(broker->wait_for(" running")) << broker->output();
  return broker;
}

Listener::Listener(uint16_t port, const std::string &topics) {
  mosquitto_lib_init();
  client_ = mosquitto_new(nullptr, true, this);
  mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_subscribe_callback_set(client_, [](mosquitto *, void *self, int, int, const int *) {
    static_cast<Listener *>(self)->subscribed_.release();
  });
  mosquitto_message_callback_set(client_, [](mosquitto *, void *object,
                                             const mosquitto_message *message) {
    auto *self = static_cast<Listener *>(object);
    const std::lock_guard hold(self->lock_);
    self->received_.push_back(
        {message->topic,
         {static_cast<const char *>(message->payload), static_cast<size_t>(message->payloadlen)},
         message->retain});
    self->changed_.notify_all();
  });
  EXPECT_EQ(0, mosquitto_connect(client_, "127.0.0.1", port, 60));
  EXPECT_EQ(0, mosquitto_subscribe(client_, nullptr, topics.c_str(), 0));
  EXPECT_EQ(0, mosquitto_loop_start(client_));
  EXPECT_TRUE(subscribed_.try_acquire_for(kPatience));
}

Listener::~Listener() {
  mosquitto_disconnect(client_);
  mosquitto_loop_stop(client_, true);
  mosquitto_destroy(client_);
}

bool Listener::wait_for(const std::string &topic, const std::string &part) {
  std::unique_lock hold(lock_);
  return changed_.wait_for(hold, kPatience, [&] {
    return std::ranges::any_of(received_, [&](const Received &each) {
      return each.topic == topic && each.payload.find(part) != std::string::npos;
    });
  });
}

std::vector<Received> Listener::all() {
  const std::lock_guard hold(lock_);
  return received_;
}

void Listener::publish(const std::string &topic, const std::string &payload, uint64_t sequence,
                       bool retain) {
  mqtt::Properties properties;
  properties.add_user("stream", "stream");
  properties.add_user("sequence", std::to_string(sequence));
  EXPECT_EQ(0,
            mosquitto_publish_v5(client_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                                 payload.data(), 1, retain, properties.get()));
}

}  // namespace test
