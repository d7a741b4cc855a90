// Reads requests from outside, compares them with what the configuration allows, and makes the
// texts of answers. Nothing here sends anything.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "msgbridge/config.h"

namespace msgbridge {

// HTTP's status codes (RFC 9110, 15), which readers of answers know.
enum class AnswerStatus : int {
  kDone = 200,
  kBadRequest = 400,   // no JSON, or no request
  kForbidden = 403,    // the configuration does not allow it
  kNotFound = 404,     // nobody serves the path or has the name
  kTooLarge = 413,     // a body longer than the configuration allows
  kBusy = 429,         // as many requests as the configuration allows are under way
  kUnavailable = 503,  // there is no connection to the message server
  kTimeout = 504,      // the application does not answer
};

// A publication that has arrived.
struct Publication {
  std::string_view topic;
  std::string_view payload;
};

struct RestRequest {
  uint32_t code;
  std::string path;  // of the registration
  std::string handler;
  std::string text;
  bool mask;
};

struct CallRequest {
  std::string app;
  uint32_t type;
  uint32_t data;
  std::string body;
  uint32_t timeout_ms;
  bool mask;
};

struct Refusal {
  AnswerStatus status;
  std::string why;  // printable
};

using Request = std::variant<RestRequest, CallRequest, Refusal>;

// `base` is "PREFIX/GATEWAY", below which requests come:
//
//   BASE/rest/METHOD/PATH  payload: the request's text; for post, put and patch JSON
//   BASE/call/APP/TYPE     payload: {"data": NUMBER, "body": TEXT or JSON}, or nothing
Request read_request(const Publication &publication, std::string_view base, const DownRules &rules,
                     const catalogue::Catalogue &types);

// Whether an answer may go to `topic`. The gateway's own topics are refused: there it could be
// taken for an event, a status or another request.
bool may_answer_to(std::string_view topic, std::string_view base);

// The payloads of answers, one JSON object each.
std::string refusal_text(AnswerStatus status, std::string_view why);
std::string rest_answer_text(std::string_view body, bool mask);
std::string call_answer_text(uint32_t data, std::string_view body, bool mask);

}  // namespace msgbridge
