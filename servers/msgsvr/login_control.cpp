// Login control (0x2CF01 to 0x2CF05): counts failed logins of each client and account. Who fails
// too often is locked out for a growing time. See msgapi/login_records.h for the records and the
// rules.
//
// Times are kept as what is left of them, by the monotonic clock, because a device's wall clock
// jumps when it first learns the time. The state is written to a file when the server stops, and a
// moment after each change. A thread of its own writes, because the disk may take long.

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "common/log_line.h"
#include "common/whole_file.h"
#include "msgapi/login.h"
#include "msgapi/login_records.h"
#include "msgsvr/services.h"
#include "msgsvr/worker.h"

namespace msgsvr {
namespace {

using namespace std::chrono_literals;
using servers::log_line;
using servers::write_log_line;
using Clock = EventLoop::Clock;
using std::chrono::seconds;

static_assert(sizeof(ORP_LCTRL_REQUEST_ST) == ORP_LCTRL_REQUEST_SIZE);
static_assert(sizeof(ORP_LCTRL_RESULT_ST) == ORP_LCTRL_RESULT_SIZE);
static_assert(sizeof(ORP_LCTRL_LIMIT_ST) == ORP_LCTRL_LIMIT_SIZE);
static_assert(sizeof(ORP_LCTRL_QUERY_ST) == ORP_LCTRL_QUERY_SIZE);
static_assert(sizeof(ORP_LCTRL_ROUND_ST) == ORP_LCTRL_ROUND_SIZE);

constexpr seconds kLongestRound = 24h;
constexpr seconds kMemory = 24h;
constexpr uint32_t kMostFailedTimes = 1000;
constexpr auto kSaveDelay = 200ms;

// Bounded, because clients choose the account names that they try.
constexpr size_t kMostRecords = 4096;

struct Record {
  uint32_t failed = 0;
  uint32_t round = 0;
  Clock::time_point forbidden_until{};
  Clock::time_point last_attempt{};
};

std::string text_of(const char *field) {
  return std::string(field, ::strnlen(field, ORP_LCTRL_TEXT_SIZE));
}

uint32_t left(Clock::time_point until) {
  const auto rest = std::chrono::ceil<seconds>(until - Clock::now());
  return static_cast<uint32_t>(std::max<int64_t>(rest.count(), 0));
}

template <typename T>
bool read_body(const Message &message, T *out) {
  if (message.body.size() < sizeof *out) return false;
  std::memcpy(out, message.body.data(), sizeof *out);
  return true;
}

template <typename T>
std::span<const char> bytes_of(const T &record) {
  return {reinterpret_cast<const char *>(&record), sizeof record};
}

class LoginControl final : public Service {
 public:
  explicit LoginControl(Server *server) : server_(server), path_(server->options().login_state) {
    load();
    if (!path_.empty()) worker_ = std::make_unique<Worker>(&server->loop());
    server->serve(ORP_LCTRL_MSG_LOGIN, [this](Client &from, const Message &m) {
      answer(from, m, [this](const ORP_LCTRL_REQUEST_ST &r) { return attempt(r); });
    });
    server->serve(ORP_LCTRL_MSG_CHECK, [this](Client &from, const Message &m) {
      answer(from, m, [this](const ORP_LCTRL_REQUEST_ST &r) { return check(r); });
    });
    server->serve(ORP_LCTRL_MSG_SET_MAX_FAILED,
                  [this](Client &, const Message &m) { set_limit(m); });
    server->serve(ORP_LCTRL_MSG_CLEAR_FORBIDDEN, [this](Client &, const Message &m) { clear(m); });
    server->serve(ORP_LCTRL_MSG_GET_ROUND,
                  [this](Client &from, const Message &m) { tell_round(from, m); });
  }

  ~LoginControl() override {
    try {
      worker_.reset();
      // Save even without a change: less is left of the forbidden time.
      const bool known = save_timer_ != 0 || !records_.empty();
      if (known && !path_.empty() && !servers::replace_file(path_, state())) complain(errno);
    } catch (const std::exception &error) {
      write_log_line(error.what());
    }
  }

 private:
  using Key = std::pair<std::string, std::string>;  // client, account

  template <typename Judge>
  void answer(Client &from, const Message &message, Judge judge) {
    ORP_LCTRL_REQUEST_ST request;
    if (!read_body(message, &request)) {
      // An answer without a body tells the requester that its record was not understood.
      server_->outbox().reply(from, message, 1);
      return;
    }
    const ORP_LCTRL_RESULT_ST result = judge(request);
    server_->outbox().reply(from, message, 0, bytes_of(result));
  }

  static Key key_of(const ORP_LCTRL_REQUEST_ST &request) {
    return {text_of(request.aucClient), text_of(request.aucAccount)};
  }

  ORP_LCTRL_RESULT_ST check(const ORP_LCTRL_REQUEST_ST &request) {
    forget_old();
    const auto entry = records_.find(key_of(request));
    return result_of(entry == records_.end() ? Record{} : entry->second);
  }

  ORP_LCTRL_RESULT_ST attempt(const ORP_LCTRL_REQUEST_ST &request) {
    forget_old();
    const Key key = key_of(request);
    const auto entry = records_.find(key);
    if (entry != records_.end() && left(entry->second.forbidden_until) > 0) {
      return result_of(entry->second);
    }
    changed();
    if (request.ulOutcome == ORP_LCTRL_SUCCEEDED) {
      records_.erase(key);
      return result_of({});
    }

    if (entry == records_.end()) make_room();
    Record &record = records_[key];
    record.last_attempt = Clock::now();
    if (++record.failed >= max_failed_) {
      record.failed = 0;
      ++record.round;
      const seconds time =
          std::min(kLongestRound, first_round_ * (1 << std::min(record.round - 1, 17u)));
      record.forbidden_until = record.last_attempt + time;
      log_line("{} may not log in as {} for {} s, round {}", key.first, key.second, time.count(),
               record.round);
    }
    return result_of(record);
  }

  ORP_LCTRL_RESULT_ST result_of(const Record &record) const {
    ORP_LCTRL_RESULT_ST result{};
    result.ulForbiddenTime = left(record.forbidden_until);
    result.ulVerdict = result.ulForbiddenTime > 0 ? ORP_LCTRL_FORBIDDEN : ORP_LCTRL_ALLOWED;
    result.ulFailedTimes = record.failed;
    result.ulTimesLeft = max_failed_ > record.failed ? max_failed_ - record.failed : 1;
    result.ulRound = record.round;
    return result;
  }

  void set_limit(const Message &message) {
    ORP_LCTRL_LIMIT_ST limit;
    if (!read_body(message, &limit)) return;
    if (limit.ulMaxFailedTimes > 0)
      max_failed_ = std::min(limit.ulMaxFailedTimes, kMostFailedTimes);
    if (limit.ulForbiddenTime > 0) {
      first_round_ = std::min(seconds(limit.ulForbiddenTime), kLongestRound);
    }
    changed();
  }

  void clear(const Message &message) {
    uint32_t address;
    if (!read_body(message, &address)) return;
    std::erase_if(records_, [&](const auto &entry) {
      return address == ORP_LCTRL_CLEAR_ALL || entry.first.first == address_text(address);
    });
    changed();
  }

  void tell_round(Client &from, const Message &message) {
    ORP_LCTRL_QUERY_ST query;
    if (!read_body(message, &query)) {
      server_->outbox().reply(from, message, 1);
      return;
    }
    ORP_LCTRL_ROUND_ST round{};
    for (const auto &[key, record] : records_) {
      const uint32_t rest = left(record.forbidden_until);
      if (rest == 0 || (query.ulClient != 0 && key.first != address_text(query.ulClient))) continue;
      round.ulRound = std::max(round.ulRound, record.round);
      round.ulForbiddenTime = std::max(round.ulForbiddenTime, rest);
    }
    server_->outbox().reply(from, message, 0, bytes_of(round));
  }

  static std::string address_text(uint32_t address) {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
  }

  void forget_old() {
    const auto now = Clock::now();
    std::erase_if(records_, [&](const auto &entry) {
      return entry.second.forbidden_until <= now && entry.second.last_attempt + kMemory <= now;
    });
  }

  // Gives up the record that has been quiet the longest. Records that forbid go last.
  void make_room() {
    if (records_.size() < kMostRecords) return;
    const auto weight = [](const Record &r) {
      return std::pair(r.forbidden_until, r.last_attempt);
    };
    records_.erase(std::min_element(records_.begin(), records_.end(), [&](auto &a, auto &b) {
      return weight(a.second) < weight(b.second);
    }));
  }

  void changed() {
    if (save_timer_ != 0 || path_.empty()) return;
    save_timer_ = server_->loop().after(kSaveDelay, [this] { save(); });
  }

  void save() {
    save_timer_ = 0;
    const auto error = std::make_shared<int>(0);
    worker_->run([path = path_, text = state(),
                  error] { *error = servers::replace_file(path, text) ? 0 : errno; },
                 [this, error] { complain(*error); });
  }

  void complain(int error) const {
    if (error != 0) log_line("login control cannot write {}: {}", path_, std::strerror(error));
  }

  std::string state() const {
    nlohmann::json state;
    state["max_failed_times"] = max_failed_;
    state["forbidden_time"] = first_round_.count();
    state["clients"] = nlohmann::json::array();
    const auto now = Clock::now();
    for (const auto &[key, record] : records_) {
      state["clients"].push_back(
          {{"client", key.first},
           {"account", key.second},
           {"failed", record.failed},
           {"round", record.round},
           {"forbidden", left(record.forbidden_until)},
           {"quiet", std::chrono::duration_cast<seconds>(now - record.last_attempt).count()}});
    }
    // Texts from clients need not be UTF-8.
    return state.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  }

  // A file that is not there or not whole means that nothing is known.
  void load() {
    std::ifstream file(path_);
    if (path_.empty() || !file) return;
    try {
      const nlohmann::json state = nlohmann::json::parse(file);
      max_failed_ = std::clamp(state.at("max_failed_times").get<uint32_t>(), 1u, kMostFailedTimes);
      first_round_ =
          std::clamp(seconds(state.at("forbidden_time").get<uint32_t>()), 1s, kLongestRound);
      const auto now = Clock::now();
      for (const nlohmann::json &entry : state.at("clients")) {
        if (records_.size() >= kMostRecords) break;
        Record &record = records_[{entry.at("client"), entry.at("account")}];
        record.failed = entry.at("failed");
        record.round = entry.at("round");
        record.forbidden_until =
            now + std::min(seconds(entry.at("forbidden").get<uint32_t>()), kLongestRound);
        record.last_attempt = now - std::min(seconds(entry.at("quiet").get<uint32_t>()), kMemory);
      }
    } catch (const nlohmann::json::exception &error) {
      log_line("login control starts anew: {} is damaged: {}", path_, error.what());
    }
  }

  Server *server_;
  const std::string path_;
  std::map<Key, Record> records_;
  uint32_t max_failed_ = 5;
  seconds first_round_ = 60s;
  EventLoop::TimerId save_timer_ = 0;
  std::unique_ptr<Worker> worker_;  // none without a file
};

}  // namespace

std::unique_ptr<Service> make_login_control(Server *server) {
  return std::make_unique<LoginControl>(server);
}

}  // namespace msgsvr
