// The files that carry bodies of more than 2048 bytes.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "common/unique_fd.h"
#include "msgapi/msg.h"

namespace msgsvr {

// The path in the body of a message whose real body is in a file; none unless it names a file
// directly in the directory for such files.
std::optional<std::string> hand_over_path(std::span<const char> body);

// Reads the file that `body` names and removes it. False when the path is refused, the file is not
// a regular one, is not its `sender`'s, is longer than `limit`, or cannot be read.
bool read_hand_over(std::span<const char> body, size_t limit, uid_t sender, std::string *out);

// Where the user of a client is not known.
constexpr uid_t kUnknownUser = static_cast<uid_t>(-1);

// Opens a regular file that a sender of that user may hand over: its own, root's may be any. Of a
// sender on another board the user is not known, and every file is taken for its own. What is done
// with the file then goes by the descriptor: its name may soon be another file's. None when there
// is no such file.
servers::UniqueFd open_hand_over(const std::string &path, uid_t sender);

// A message goes on whose `body` names a file. It becomes the receiver's alone if that is an
// ordinary user and the server may do that: the receiver can then read it and, also in a sticky
// directory, remove it. False if there is such a file and the sender has no right to hand it over.
bool pass_hand_over(std::span<const char> body, uid_t sender, uid_t receiver);
// The same of a file that the server has made.
void give_hand_over(uint32_t number, uid_t receiver);

// A message that nobody gets, with its header `swapped` or not: if its body is in a file, and that
// is its sender's, or became the `receiver`'s on its way there, the file goes, too. One of a sender
// whose user is not known stays.
void remove_sent_file(std::span<const char> frame, bool swapped, uid_t sender,
                      uid_t receiver = kUnknownUser) noexcept;

// Gives the receiver a name of its own for the hand-over file, which is reached without copying it
// where the receiver is root, or the server is not. Returns the new name's number, or 0 with
// errno set.
uint32_t share_hand_over(const servers::UniqueFd &file, uid_t receiver);
// A new, empty file under a fresh number, open for writing, as the library makes them. None with
// errno set and *number untouched when that is not possible.
servers::UniqueFd create_hand_over(uint32_t *number);
// The body of a message that hands over the file of that number.
std::array<char, ORP_MSG_HAND_OVER_PATH_SIZE> hand_over_body(uint32_t number);
void remove_hand_over(uint32_t number);

}  // namespace msgsvr
