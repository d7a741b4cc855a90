// What the bridge and the fleet's tool know about a broker: its address, how to trust it, and the
// credentials for it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue/json_file.h"

namespace mqtt {

struct Address {
  std::string host;
  uint16_t port;
  bool tls;

  std::string text() const;  // "mqtts://broker.example.net:8883"
};

// "mqtt://HOST[:PORT]" or "mqtts://HOST[:PORT]", with an IPv6 address in brackets; the ports are
// 1883 and 8883 without one. Throws std::invalid_argument that says what is wrong.
Address read_address(std::string_view text);

// Files in PEM form. Without a `ca` the system's authorities are trusted.
struct Tls {
  std::string ca;
  std::string certificate;
  std::string key;
  bool verify = true;  // the broker's certificate, and that it names the host
};

struct Credentials {
  std::string user;
  std::string password;
};

// A JSON object of "user" and "password". Throws catalogue::JsonError, or catalogue::Unreadable,
// also when others than the file's owner may read it.
Credentials read_credentials(const std::string &path);

// Whether `topic` may be published to: UTF-8 without control characters and wildcards, 1 to 1024
// bytes, and not one of the broker's own ("$...").
bool is_topic(std::string_view topic);

}  // namespace mqtt
