#include "flight/record.h"

namespace flight {

Record little(Record record) {
  record.size = little(record.size);
  record.kept = little(record.kept);
  record.number = little(record.number);
  record.time_ns = little(record.time_ns);
  record.from = little(record.from);
  record.to = little(record.to);
  record.about = little(record.about);
  record.a = little(record.a);
  record.b = little(record.b);
  return record;
}

std::string_view kind_name(Kind kind) {
  switch (kind) {
    case Kind::kFiller:
      return "filler";
    case Kind::kClock:
      return "clock";
    case Kind::kConnected:
      return "connected";
    case Kind::kNamed:
      return "named";
    case Kind::kEnded:
      return "ended";
    case Kind::kAccepted:
      return "accepted";
    case Kind::kDelivered:
      return "delivered";
    case Kind::kLost:
      return "lost";
    case Kind::kBacklog:
      return "backlog";
    case Kind::kRelieved:
      return "relieved";
    case Kind::kDescriptor:
      return "descriptor";
    case Kind::kHttpRequest:
      return "http-request";
    case Kind::kHttpAnswer:
      return "http-answer";
  }
  return "unknown";
}

std::string_view loss_text(Loss loss) {
  switch (loss) {
    case Loss::kNone:
      return "";
    case Loss::kNoSuchName:
      return "no such name";
    case Loss::kQueueFull:
      return "queue full";
    case Loss::kReceiverGone:
      return "receiver gone";
    case Loss::kCutShort:
      return "cut short";
    case Loss::kNotServed:
      return "not served";
    case Loss::kMalformed:
      return "malformed";
    case Loss::kNotPermitted:
      return "not permitted";
    case Loss::kDescriptor:
      return "descriptor not passed";
  }
  return "unknown";
}

}  // namespace flight
