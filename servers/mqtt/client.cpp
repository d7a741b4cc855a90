#include "mqtt/client.h"

#include <mqtt_protocol.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

namespace mqtt {
namespace {

constexpr int kVerifyPeer = 1;  // SSL_VERIFY_PEER
constexpr int kVerifyNone = 0;

void check(int error, const char *what) {
  if (error == MOSQ_ERR_SUCCESS) return;
  throw std::runtime_error(std::string(what) + ": " + error_text(error, errno));
}

void check_property(int error) {
  if (error != MOSQ_ERR_SUCCESS) throw std::bad_alloc();
}

const char *path_or_null(const std::string &path) {
  return path.empty() ? nullptr : path.c_str();
}

// The library says of none which it is, nor what is wrong with it.
void check_readable(const std::string &path) {
  if (path.empty() || ::access(path.c_str(), R_OK) == 0) return;
  throw std::runtime_error(path + ": " + std::strerror(errno));
}

void set_tls(mosquitto *client, const Tls &tls) {
  for (const std::string *path : {&tls.ca, &tls.certificate, &tls.key}) check_readable(*path);
  if (tls.ca.empty()) {
    check(mosquitto_int_option(client, MOSQ_OPT_TLS_USE_OS_CERTS, 1), "the system's authorities");
  }
  if (!tls.ca.empty() || !tls.certificate.empty()) {
    // The library takes a certificate of ours only together with authorities; a directory will do.
    check(
        mosquitto_tls_set(client, path_or_null(tls.ca), tls.ca.empty() ? "/etc/ssl/certs" : nullptr,
                          path_or_null(tls.certificate), path_or_null(tls.key), nullptr),
        "the files of TLS");
  }
  check(mosquitto_tls_opts_set(client, tls.verify ? kVerifyPeer : kVerifyNone, nullptr, nullptr),
        "TLS");
  check(mosquitto_tls_insecure_set(client, !tls.verify), "TLS");
}

std::string take(char *text) {
  std::string copy(text == nullptr ? "" : text);
  std::free(text);
  return copy;
}

}  // namespace

Client make_client(const std::string &id, void *object, const Address &address, const Tls &tls,
                   const std::optional<Credentials> &credentials) {
  Client client(mosquitto_new(id.c_str(), true, object));
  if (!client) throw std::bad_alloc();
  check(mosquitto_int_option(client.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5), "MQTT 5");
  check(mosquitto_int_option(client.get(), MOSQ_OPT_TCP_NODELAY, 1), "TCP");
  if (address.tls) set_tls(client.get(), tls);
  if (credentials) {
    check(mosquitto_username_pw_set(client.get(), credentials->user.c_str(),
                                    credentials->password.c_str()),
          "the credentials");
  }
  return client;
}

std::string error_text(int error, int number) {
  if (error == MOSQ_ERR_ERRNO) return std::strerror(number);
  std::string text = mosquitto_strerror(error);
  while (text.ends_with('.')) text.pop_back();
  return text;
}

void Properties::add_byte(int identifier, uint8_t value) {
  check_property(mosquitto_property_add_byte(&list_, identifier, value));
}
void Properties::add_number(int identifier, uint32_t value) {
  check_property(mosquitto_property_add_int32(&list_, identifier, value));
}
void Properties::add_short(int identifier, uint16_t value) {
  check_property(mosquitto_property_add_int16(&list_, identifier, value));
}
void Properties::add_text(int identifier, const std::string &value) {
  check_property(mosquitto_property_add_string(&list_, identifier, value.c_str()));
}
void Properties::add_bytes(int identifier, std::string_view value) {
  check_property(mosquitto_property_add_binary(
      &list_, identifier, value.data(),
      static_cast<uint16_t>(std::min<size_t>(value.size(), UINT16_MAX))));
}
void Properties::add_user(const char *name, const std::string &value) {
  check_property(
      mosquitto_property_add_string_pair(&list_, MQTT_PROP_USER_PROPERTY, name, value.c_str()));
}

std::optional<std::string> text_property(const mosquitto_property *list, int identifier) {
  char *text = nullptr;
  if (mosquitto_property_read_string(list, identifier, &text, false) == nullptr)
    return std::nullopt;
  return take(text);
}

std::optional<std::string> bytes_property(const mosquitto_property *list, int identifier) {
  void *bytes = nullptr;
  uint16_t size = 0;
  if (mosquitto_property_read_binary(list, identifier, &bytes, &size, false) == nullptr) {
    return std::nullopt;
  }
  std::string copy(static_cast<const char *>(bytes), size);
  std::free(bytes);
  return copy;
}

std::optional<std::string> user_property(const mosquitto_property *list, std::string_view name) {
  for (bool again = false;; again = true) {
    char *key = nullptr, *value = nullptr;
    list = mosquitto_property_read_string_pair(list, MQTT_PROP_USER_PROPERTY, &key, &value, again);
    if (list == nullptr) return std::nullopt;
    const std::string found = take(key);
    std::string text = take(value);
    if (found == name) return text;
  }
}

}  // namespace mqtt
