#include "msgctl/body.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>

#include "common/exit_status.h"
#include "common/unique_fd.h"
#include "msgapi/dmmsg.h"
#include "msgapi/msg.h"

namespace msgctl {
namespace {

using servers::ExitStatus;
using servers::Failure;

std::string read_all(int fd, const std::string &name) {
  std::string bytes;
  char buffer[65536];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      throw Failure(ExitStatus::kBadBody,
                    fmt::format("{} cannot be read: {}", name, std::strerror(errno)));
    }
    if (got == 0) return bytes;
    bytes.append(buffer, static_cast<size_t>(got));
    if (bytes.size() > ORP_MSG_MAX_BODY) {
      throw Failure(ExitStatus::kBadBody, fmt::format("{} has more than the {} bytes that a body "
                                                      "may have",
                                                      name, ORP_MSG_MAX_BODY));
    }
  }
}

std::string read_file(const std::string &path) {
  const servers::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) {
    throw Failure(ExitStatus::kBadBody,
                  fmt::format("{} cannot be opened: {}", path, std::strerror(errno)));
  }
  return read_all(file.get(), path);
}

std::string from_hex(std::string_view digits) {
  std::string bytes;
  std::string pair;
  for (const char c : digits) {
    if (c == ' ' || c == ':') continue;
    pair += c;
    if (pair.size() < 2) continue;
    unsigned value = 0;
    const auto end = std::from_chars(pair.data(), pair.data() + 2, value, 16);
    if (end.ptr != pair.data() + 2 || end.ec != std::errc()) break;
    bytes += static_cast<char>(value);
    pair.clear();
  }
  if (!pair.empty()) {
    throw Failure(ExitStatus::kBadBody, fmt::format("'{}' is no pair of hexadecimal digits", pair));
  }
  return bytes;
}

std::optional<std::string> bytes_of(const std::string &word) {
  if (word == "-") return read_all(STDIN_FILENO, "standard input");
  if (word.starts_with('@')) return read_file(word.substr(1));
  if (word.starts_with("hex:")) return from_hex(std::string_view(word).substr(4));
  return std::nullopt;
}

std::string text_of(const std::string &word) {
  if (word.starts_with("text:")) return word.substr(5);
  if (!word.starts_with("json:")) return word;
  std::string text = word.substr(5);
  if (!nlohmann::json::accept(text)) {
    throw Failure(ExitStatus::kBadBody, "the body is no JSON: " + text);
  }
  return text;
}

struct FreeItems {
  void operator()(void *body) const { ORP_DMMSG_Free(body); }
};

}  // namespace

void add_item_options(servers::Command *command, BodyWords *words) {
  command->option("--dm", &words->items,
                  "A DM item, NAME=VALUE or NAME=hex:..., in place of a body (repeatable)");
  command->number("--sub-type", &words->sub_type, "The sub type of DM items");
}

std::string make_items(const std::vector<std::string> &items, uint32_t sub_type) {
  void *raw = nullptr;
  if (ORP_DMMSG_Builder(&raw, "", sub_type) != 0) throw std::bad_alloc();
  for (const std::string &item : items) {
    const size_t sign = item.find('=');
    if (sign == std::string::npos || sign == 0) {
      ORP_DMMSG_Free(raw);
      throw servers::UsageError("'" + item + "' is no item: write NAME=VALUE");
    }
    const std::string name = item.substr(0, sign);
    std::string value = item.substr(sign + 1);
    try {
      if (value.starts_with("hex:")) {
        value = from_hex(std::string_view(value).substr(4));
      } else {
        value += '\0';
      }
    } catch (...) {
      ORP_DMMSG_Free(raw);
      throw;
    }
    if (ORP_DMMSG_AppendItem(&raw, 0, name.c_str(), value.data(),
                             static_cast<uint32_t>(value.size())) != 0) {
      if (raw != nullptr) ORP_DMMSG_Free(raw);
      throw std::bad_alloc();
    }
  }
  const std::unique_ptr<void, FreeItems> body(raw);
  // Sealed as the library does when it sends: only the bytes in use, none free.
  uint32_t words[3];
  std::memcpy(words, body.get(), sizeof words);
  words[1] -= words[2];
  words[2] = 0;
  std::memcpy(body.get(), words, sizeof words);
  return {static_cast<const char *>(body.get()), words[1]};
}

std::string make_body(const BodyWords &words, const catalogue::Content *content) {
  if (!words.items.empty()) {
    if (!words.word.empty()) {
      throw servers::UsageError("give a body or DM items (--dm), not both");
    }
    return make_items(words.items, words.sub_type);
  }
  if (words.word.empty()) return {};
  if (const std::optional<std::string> bytes = bytes_of(words.word)) return *bytes;
  std::string text = text_of(words.word);
  if (content != nullptr && content->body == catalogue::Body::kName) {
    if (text.size() >= ORP_APP_NAME_SIZE) {
      throw Failure(ExitStatus::kBadBody,
                    fmt::format("the body is a name of at most {} characters, and '{}' has {}",
                                ORP_APP_NAME_SIZE - 1, text, text.size()));
    }
    text.resize(ORP_APP_NAME_SIZE);
    return text;
  }
  return text + '\0';
}

std::string body_text(const std::string &word) {
  if (const std::optional<std::string> bytes = bytes_of(word)) return *bytes;
  return text_of(word);
}

uint32_t number(const std::string &text, const char *what) {
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  const char *begin = text.data() + (hex ? 2 : 0);
  const char *end = text.data() + text.size();
  uint32_t value = 0;
  const auto result = std::from_chars(begin, end, value, hex ? 16 : 10);
  if (begin == end || result.ptr != end || result.ec != std::errc()) {
    throw servers::UsageError(
        fmt::format("'{}' is no {}: give a number up to 4294967295, decimal or 0x...", text, what));
  }
  return value;
}

}  // namespace msgctl
