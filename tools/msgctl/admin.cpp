#include "msgctl/admin.h"

#include <curl/curl.h>
#include <fmt/core.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>

namespace msgctl {
namespace {

// More than the list of all clients that a server can have.
constexpr size_t kMostBytes = size_t{64} << 20;

size_t take(char *bytes, size_t size, size_t count, void *text) {
  auto *answer = static_cast<std::string *>(text);
  if (answer->size() + size * count > kMostBytes) return 0;
  answer->append(bytes, size * count);
  return size * count;
}

struct EndTransfer {
  void operator()(CURL *curl) const { curl_easy_cleanup(curl); }
};

[[noreturn]] void fail_to_ask(CURL *curl, CURLcode code, uint32_t timeout_ms) {
  long error = 0;
  curl_easy_getinfo(curl, CURLINFO_OS_ERRNO, &error);
  if (code == CURLE_OPERATION_TIMEDOUT) {
    throw Failure(ExitStatus::kTimeout,
                  fmt::format("the message server did not answer at {} in {} ms (--timeout)",
                              kAdminPath, timeout_ms));
  }
  const int number = static_cast<int>(error);
  if (code == CURLE_COULDNT_CONNECT && (number == EACCES || number == EPERM)) {
    throw Failure(ExitStatus::kNotPermitted,
                  fmt::format("{}: {}; become root, or start msgsvr with --admin-group and join "
                              "that group",
                              kAdminPath, std::strerror(number)));
  }
  if (code == CURLE_COULDNT_CONNECT) {
    throw Failure(
        ExitStatus::kNoServer,
        fmt::format("the message server cannot be asked about itself: {}{}{}; is it "
                    "running, and without --admin none?",
                    kAdminPath, number == 0 ? "" : ": ", number == 0 ? "" : std::strerror(number)));
  }
  throw Failure(ExitStatus::kNoServer,
                fmt::format("the message server broke off its answer at {}: {}", kAdminPath,
                            curl_easy_strerror(code)));
}

}  // namespace

std::string Admin::ask(const char *method, const std::string &place) const {
  const std::unique_ptr<CURL, EndTransfer> curl(curl_easy_init());
  if (!curl) throw std::bad_alloc();
  std::string answer;
  curl_easy_setopt(curl.get(), CURLOPT_UNIX_SOCKET_PATH, kAdminPath);
  curl_easy_setopt(curl.get(), CURLOPT_URL, ("http://msgsvr" + place).c_str());
  curl_easy_setopt(curl.get(), CURLOPT_PROXY, "");
  curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, method);
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(timeout_ms_));
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, take);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer);
  const CURLcode code = curl_easy_perform(curl.get());
  if (code != CURLE_OK) fail_to_ask(curl.get(), code, timeout_ms_);

  long status = 0;
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
  if (status >= 200 && status < 300) return answer;
  const Json json = Json::parse(answer, nullptr, false);
  const std::string why = text_at(json, "error");
  const ExitStatus exit = status == 404                    ? ExitStatus::kNoSuch
                          : status == 401 || status == 403 ? ExitStatus::kNotPermitted
                                                           : ExitStatus::kAnswerError;
  throw Failure(exit, fmt::format("the message server answered {} {} with {}{}{}", method, place,
                                  status, why.empty() ? "" : ": ", why));
}

Json Admin::get(const std::string &place) const {
  Json json = Json::parse(ask("GET", place), nullptr, false);
  if (!json.is_object()) {
    throw Failure(ExitStatus::kBadBody,
                  fmt::format("what the message server said at {} is no JSON object", place));
  }
  return json;
}

void Admin::remove(const std::string &place) const {
  ask("DELETE", place);
}

std::vector<Json> Admin::list(const std::string &place, const char *member) const {
  Json json = get(place);
  const auto entry = json.find(member);
  if (entry == json.end() || !entry->is_array()) {
    throw Failure(
        ExitStatus::kBadBody,
        fmt::format("what the message server said at {} has no list '{}'", place, member));
  }
  return {std::move_iterator(entry->begin()), std::move_iterator(entry->end())};
}

namespace {

const Json *at(const Json &json, const char *member) {
  if (!json.is_object()) return nullptr;
  const auto entry = json.find(member);
  return entry == json.end() ? nullptr : &*entry;
}

}  // namespace

std::string text_at(const Json &json, const char *member) {
  const Json *entry = at(json, member);
  return entry != nullptr && entry->is_string() ? entry->get<std::string>() : std::string();
}

double number_at(const Json &json, const char *member) {
  const Json *entry = at(json, member);
  return entry != nullptr && entry->is_number() ? entry->get<double>() : 0;
}

uint64_t count_at(const Json &json, const char *member) {
  const Json *entry = at(json, member);
  return entry != nullptr && entry->is_number_unsigned() ? entry->get<uint64_t>() : 0;
}

bool flag_at(const Json &json, const char *member) {
  const Json *entry = at(json, member);
  return entry != nullptr && entry->is_boolean() && entry->get<bool>();
}

const Json &object_at(const Json &json, const char *member) {
  static const Json kNone = Json::object();
  const Json *entry = at(json, member);
  return entry != nullptr && entry->is_object() ? *entry : kNone;
}

}  // namespace msgctl
