// Bodies that are too long for the socket travel in a hand-over file.
//
// The sender creates the file and owns it until the message that names it is on its way. The
// receiver reads and deletes it. A file that nobody receives stays where it is.
#pragma once

#include "base/result.h"
#include "msg/header.h"

namespace msgapi::msg {

struct HandOverPath {
  char text[ORP_MSG_HAND_OVER_PATH_SIZE];
};

// The message that travels instead of one with a long body.
struct HandOverMessage {
  Header header;
  HandOverPath path;
};
static_assert(sizeof(HandOverMessage) == 300);

// Writes the message's body into a new file. kNoHandOver, with a console line and no file left,
// when that fails.
Result<HandOverPath> store_body(const Header &message);

// Replaces a message's body, the path of a file, with the file's contents, and deletes the file. On
// kNoMemory the message is freed and *message null; otherwise it stays the caller's.
Status complete_hand_over(Header **message);

}  // namespace msgapi::msg
