#include "mqtt/address.h"

#include <sys/stat.h>

#include <charconv>
#include <stdexcept>

#include "common/printable.h"

namespace mqtt {
namespace {

constexpr size_t kLongestHost = 253;  // RFC 1035 section 2.3.4
constexpr size_t kLongestTopic = 1024;
// MQTT 5, 3.1.3.6. Clouds give out tokens of some thousand bytes as passwords.
constexpr size_t kLongestPassword = 65535;

bool is_host(std::string_view host) {
  if (host.empty() || host.size() > kLongestHost) return false;
  return host.find_first_not_of(
             "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_:%") == host.npos;
}

std::string password_in(const catalogue::JsonValue &root) {
  const catalogue::JsonValue *value = root.member("password");
  if (value == nullptr) return "";
  if (value->kind != catalogue::JsonValue::Kind::kText || value->text.size() > kLongestPassword ||
      value->text.find('\0') != std::string::npos) {
    catalogue::fail(*value, "'password' must be a text of at most 65535 bytes without NUL");
  }
  return std::string(value->text);
}

}  // namespace

std::string Address::text() const {
  const bool numeric_v6 = host.find(':') != std::string::npos;
  return std::string(tls ? "mqtts://" : "mqtt://") + (numeric_v6 ? "[" + host + "]" : host) + ":" +
         std::to_string(port);
}

Address read_address(std::string_view text) {
  Address address{"", 1883, false};
  if (text.starts_with("mqtts://")) {
    address.tls = true;
    address.port = 8883;
    text.remove_prefix(8);
  } else if (text.starts_with("mqtt://")) {
    text.remove_prefix(7);
  } else {
    throw std::invalid_argument("an address begins with mqtt:// or mqtts://");
  }
  if (text.ends_with('/')) text.remove_suffix(1);

  std::string_view port;
  size_t end = text.npos;
  if (text.starts_with('[')) {
    end = text.find(']');
    if (end == text.npos) throw std::invalid_argument("an IPv6 address ends with ]");
    address.host = text.substr(1, end - 1);
    port = text.substr(end + 1);
  } else {
    end = std::min(text.find(':'), text.size());
    address.host = text.substr(0, end);
    port = text.substr(end);
  }
  if (!is_host(address.host)) throw std::invalid_argument("an address names a host");
  if (port.empty()) return address;

  port.remove_prefix(1);
  const char *last = port.data() + port.size();
  const auto [stop, error] = std::from_chars(port.data(), last, address.port);
  if (text[text.size() - port.size() - 1] != ':' || error != std::errc() || stop != last ||
      address.port == 0) {
    throw std::invalid_argument("a port is a number from 1 to 65535");
  }
  return address;
}

Credentials read_credentials(const std::string &path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    throw catalogue::Unreadable("may be read by others than its owner: chmod 600");
  }
  const catalogue::JsonValue root = catalogue::read_json(catalogue::file_contents(path));
  catalogue::expect_object(root, "a file of credentials");
  catalogue::allow(root, {"user", "password"});
  return {std::string(catalogue::text_in(catalogue::required(root, "user"), "user")),
          password_in(root)};
}

bool is_topic(std::string_view topic) {
  if (topic.empty() || topic.size() > kLongestTopic || topic.front() == '$') return false;
  if (topic.find_first_of("+#") != topic.npos) return false;
  while (!topic.empty()) {
    const size_t length = servers::printable_length(topic);
    if (length == 0) return false;
    topic.remove_prefix(length);
  }
  return true;
}

}  // namespace mqtt
