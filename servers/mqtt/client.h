// libmosquitto as the bridge and the fleet's tool use it: clients for MQTT 5 with TLS and
// credentials, properties, and errors in words.
#pragma once

#include <mosquitto.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "mqtt/address.h"

namespace mqtt {

struct Destroy {
  void operator()(mosquitto *client) const { mosquitto_destroy(client); }
};
using Client = std::unique_ptr<mosquitto, Destroy>;

// A client that has not connected yet. Its callbacks get `object`. Every connection begins a new
// session. Throws std::runtime_error, also for files of `tls` that cannot be used.
Client make_client(const std::string &id, void *object, const Address &address, const Tls &tls,
                   const std::optional<Credentials> &credentials);

// The text of a MOSQ_ERR_*; for MOSQ_ERR_ERRNO that of `number`, which is errno.
std::string error_text(int error, int number);

// Builds a list of MQTT 5 properties.
class Properties {
 public:
  Properties() = default;
  ~Properties() { mosquitto_property_free_all(&list_); }
  Properties(const Properties &) = delete;
  Properties &operator=(const Properties &) = delete;

  // Throw std::bad_alloc without memory.
  void add_byte(int identifier, uint8_t value);
  void add_number(int identifier, uint32_t value);
  void add_short(int identifier, uint16_t value);
  void add_text(int identifier, const std::string &value);
  void add_bytes(int identifier, std::string_view value);
  void add_user(const char *name, const std::string &value);

  const mosquitto_property *get() const { return list_; }

 private:
  mosquitto_property *list_ = nullptr;
};

// Properties of a publication that has arrived; none if it lacks them.
std::optional<std::string> text_property(const mosquitto_property *list, int identifier);
std::optional<std::string> bytes_property(const mosquitto_property *list, int identifier);
std::optional<std::string> user_property(const mosquitto_property *list, std::string_view name);

}  // namespace mqtt
