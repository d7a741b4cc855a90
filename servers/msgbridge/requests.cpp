#include "msgbridge/requests.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "msgapi/kit.h"
#include "msgapi/restful.h"
#include "msgbridge/guard.h"

namespace msgbridge {
namespace {

Requests *g_requests;

struct Free {
  void operator()(ORP_MSG_HEADER_ST *message) const { std::free(message); }
};
using Message = std::unique_ptr<ORP_MSG_HEADER_ST, Free>;

std::string_view body_of(const ORP_MSG_HEADER_ST &message) {
  return {reinterpret_cast<const char *>(&message + 1), message.ulDataLen};
}

std::string_view sender_of(const ORP_MSG_HEADER_ST &message) {
  return {message.aucSendApp, ::strnlen(message.aucSendApp, ORP_APP_NAME_SIZE)};
}

}  // namespace

Requests::Requests(const Config *config, const catalogue::Catalogue *types, std::string base,
                   Answer answer)
    : config_(config), types_(types), base_(std::move(base)), answer_(std::move(answer)) {
  g_requests = this;
  const auto hear = [this](uint32_t type, ORP_MSG_PROC procedure) {
    ORP_MSG_REG_HANDLE handle = nullptr;
    if (ORP_MSG_RegMsgProc(type, procedure, 0, &handle) != ORP_OK) throw std::bad_alloc();
    registrations_.insert(handle);
  };
  // The bridge serves no requests, so everything of these types is an answer, or not for it:
  // sequence number and sender tell.
  const ORP_MSG_PROC take_answer = [](ORP_MSG_HEADER_ST *message) {
    guarded("An answer to a request", [message] { g_requests->answered(*message); });
  };
  std::set<uint32_t> types_used;
  if (!config->down.rest.empty()) types_used.insert(ORP_MSG_RESTFUL_REQUEST);
  for (const CallRule &rule : config->down.calls) types_used.insert(rule.type);
  for (const uint32_t type : types_used) hear(type, take_answer);
  if (!types_used.empty()) {
    hear(ORP_MSG_UNDELIVERABLE, [](ORP_MSG_HEADER_ST *message) {
      guarded("A request that came back", [message] { g_requests->undelivered(*message); });
    });
  }
}

Requests::~Requests() {
  for (const ORP_MSG_REG_HANDLE handle : registrations_) ORP_MSG_UnRegisterMsgProc(handle);
  g_requests = nullptr;
}

void Requests::take(const Publication &publication, ReplyTo to) {
  ++counters_.requests;
  // A flood is refused before its requests are even read.
  if (pending_.size() >= config_->down.in_flight) {
    refuse(to, AnswerStatus::kBusy, "too many requests are under way; ask again later");
    return;
  }
  const Request request = read_request(publication, base_, config_->down, *types_);
  if (const auto *refusal = std::get_if<Refusal>(&request)) {
    refuse(to, refusal->status, refusal->why);
  } else if (msgkit_is_connected(MSGKIT_MESSAGE_SERVER) == 0) {
    refuse(to, AnswerStatus::kUnavailable, "the gateway has no connection to its message server");
  } else if (const auto *rest = std::get_if<RestRequest>(&request)) {
    send(*rest, std::move(to));
  } else {
    send(std::get<CallRequest>(request), std::move(to));
  }
}

void Requests::send(const RestRequest &request, ReplyTo to) {
  const Message message(ORP_MSG_BuildRestfulReqMsg(request.code, 0, request.path.c_str(),
                                                   request.handler.c_str(), request.text.c_str(),
                                                   static_cast<uint32_t>(request.text.size() + 1)));
  send(message.get(), {std::move(to), ORP_MSG_RESTFUL_REQUEST, "", request.mask, nullptr},
       config_->down.timeout_ms);
}

void Requests::send(const CallRequest &request, ReplyTo to) {
  const Message message(
      static_cast<ORP_MSG_HEADER_ST *>(std::malloc(ORP_MSG_HEADER_SIZE + request.body.size())));
  if (message) {
    ORP_MSG_SimpleBuilder(message.get(), request.app.c_str(), request.type, request.data);
    message->ulDataLen = static_cast<uint32_t>(request.body.size());
    request.body.copy(reinterpret_cast<char *>(message.get() + 1), request.body.size());
  }
  send(message.get(), {std::move(to), request.type, request.app, request.mask, nullptr},
       request.timeout_ms);
}

void Requests::send(ORP_MSG_HEADER_ST *message, Pending pending, uint32_t timeout_ms) {
  const uint32_t status = message == nullptr ? ORP_ERR_MEMORY : ORP_MSG_Send(message);
  if (status != ORP_OK) {
    refuse(pending.to, AnswerStatus::kUnavailable,
           msgkit_status_sentence(MSGKIT_STATUS_MESSAGES, status));
    return;
  }
  const uint32_t sequence = message->ulSeqNum;
  pending.timer = std::make_unique<Timer>([this, sequence] {
    // finish() gives away this very timer; `late` keeps it alive until this returns.
    if (const auto late = finish(sequence)) {
      ++counters_.timed_out;
      refuse(late->to, AnswerStatus::kTimeout, "the application does not answer");
    }
  });
  pending.timer->start(timeout_ms);
  pending_.insert_or_assign(sequence, std::move(pending));
}

void Requests::refuse(const ReplyTo &to, AnswerStatus status, std::string_view why) {
  ++counters_.refused;
  answer_(to, status, refusal_text(status, why));
}

std::optional<Requests::Pending> Requests::finish(uint32_t sequence) {
  const auto entry = pending_.find(sequence);
  if (entry == pending_.end()) return std::nullopt;
  std::optional<Pending> pending(std::move(entry->second));
  pending_.erase(entry);
  return pending;
}

void Requests::answered(const ORP_MSG_HEADER_ST &message) {
  const auto entry = pending_.find(message.ulSeqNum);
  if (entry == pending_.end() || entry->second.type != (message.ulMsgType & ORP_MSG_TYPE_MASK)) {
    return;  // a late answer, or somebody's request
  }
  if (!entry->second.app.empty() && entry->second.app != sender_of(message)) return;
  const auto pending = finish(message.ulSeqNum);
  answer_(pending->to, AnswerStatus::kDone,
          pending->app.empty()
              ? rest_answer_text(body_of(message), pending->mask)
              : call_answer_text(message.ulMsgData, body_of(message), pending->mask));
}

void Requests::undelivered(const ORP_MSG_HEADER_ST &notice) {
  const auto entry = pending_.find(notice.ulSeqNum);
  if (entry == pending_.end() || entry->second.type != notice.ulMsgData) return;
  const auto pending = finish(notice.ulSeqNum);
  refuse(pending->to, AnswerStatus::kNotFound,
         pending->app.empty()
             ? std::string("nobody serves this path")
             : "there is no application " + pending->app + ", or it does not take messages");
}

void Requests::fail_all() {
  while (!pending_.empty()) {
    const auto pending = finish(pending_.begin()->first);
    refuse(pending->to, AnswerStatus::kUnavailable, "the connection to the message server ended");
  }
}

}  // namespace msgbridge
