// The connection to the broker, on the library's loop.
//
// An attempt to connect looks up a name and may wait long, so it runs in a thread; everything after
// it happens on the loop. Nothing of a connection is kept when it ends: the user of the link must
// send again what the broker has not acknowledged. Then another attempt follows, after a random
// time whose limit doubles with each failure, so that a fleet does not come back all at once.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "mqtt/client.h"
#include "msgapi/sockbase.h"
#include "msgbridge/config.h"
#include "msgbridge/timer.h"

namespace msgbridge {

constexpr int kFirstError = 0x80;  // of the broker's reason codes (MQTT 5, 2.4)

struct LinkHandlers {
  std::function<void()> connected;
  std::function<void()> ended;
  // The broker has the publication, or refuses it with a reason code of MQTT 5 from 0x80 on.
  std::function<void(int id, int reason)> acknowledged;
  std::function<void(const mosquitto_message &message, const mosquitto_property *properties)>
      arrived;
};

class Link {
 public:
  // What the broker publishes, retained, when this connection ends without a farewell (MQTT 5,
  // 3.1.2.5).
  struct Will {
    std::string topic;
    std::string payload;
  };

  Link(const Config *config, std::string client_id, Will will, LinkHandlers handlers);
  ~Link();
  Link(const Link &) = delete;
  Link &operator=(const Link &) = delete;

  void start();
  // False from end() on.
  bool up() const { return up_ && !over_; }
  // How many publications may wait for their acknowledgements at once.
  uint16_t window() const { return window_; }
  uint64_t connections() const { return connections_; }

  // The publication's id, or a MOSQ_ERR_*.
  struct Sent {
    int error;
    int id;
  };
  Sent publish(const std::string &topic, std::string_view payload, int qos, bool retain,
               const mqtt::Properties &properties);
  void subscribe(const std::string &topics);
  // Ends the connection from the loop, after the running call has returned. Another one follows.
  void end(const std::string &why);
  // Publishes a last retained message and disconnects. Waits at most a second.
  void farewell(const std::string &topic, std::string_view payload);

 private:
  struct Attempt;

  void attempt();
  void attempted();
  void lost();
  void retry();
  void service(uint32_t event);
  int read_packets();
  void accepted(int reason, const mosquitto_property *properties);
  void subscribed(int id, int reason);
  void after_call(int error);
  void update_interest();
  void keep_alive();

  static void on_connect(mosquitto *client, void *object, int reason, int flags,
                         const mosquitto_property *properties);
  static void on_disconnect(mosquitto *client, void *object, int reason,
                            const mosquitto_property *properties);
  static void on_publish(mosquitto *client, void *object, int id, int reason,
                         const mosquitto_property *properties);
  static void on_subscribe(mosquitto *client, void *object, int id, int count, const int *reasons,
                           const mosquitto_property *properties);
  static void on_message(mosquitto *client, void *object, const mosquitto_message *message,
                         const mosquitto_property *properties);
  static void on_log(mosquitto *client, void *object, int level, const char *text);

  const Config *config_;
  std::string client_id_;
  Will will_;
  LinkHandlers handlers_;

  std::shared_ptr<Attempt> current_;
  ORP_UTIL_SOCKBASE_ST *socket_ = nullptr;   // on a duplicate of the client's descriptor
  ORP_UTIL_SOCKBASE_ST *wake_up_ = nullptr;  // the thread's eventfd
  int wake_fd_ = -1;
  Timer retry_timer_;
  Timer patience_;  // ends an attempt that takes too long
  Timer handshake_;
  Timer keep_alive_;
  size_t next_broker_ = 0;
  uint32_t failures_ = 0;
  int64_t connected_at_ms_ = 0;
  uint64_t connections_ = 0;
  uint16_t window_;
  std::map<int, std::string> subscribing_;  // by the packet's id, until the broker has answered
  std::string trouble_;                     // why the connection is over
  bool over_ = false;
  bool up_ = false;
  bool writing_ = false;
};

}  // namespace msgbridge
