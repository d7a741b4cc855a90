// Hand-over files: they carry bodies of more than 2048 bytes.
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

// The path in the body of a message whose real body is in a hand-over file; none unless it names a
// file directly in the directory for such files.
std::optional<std::string> hand_over_path(std::span<const char> body);

// Reads the file that `body` names and removes it. False when the path is refused, or the file is
// not a regular one, does not belong to `sender`, is longer than `limit`, or cannot be read.
bool read_hand_over(std::span<const char> body, size_t limit, uid_t sender, std::string *out);

// Where the user of a client is not known.
constexpr uid_t kUnknownUser = static_cast<uid_t>(-1);

// Opens a regular file that a sender of that user may hand over: its own, or any if it is root. The
// user of a sender on another board is not known: it may hand over any file. Use only the
// descriptor from then on, because the name may soon be another file's. None when there is no such
// file.
servers::UniqueFd open_hand_over(const std::string &path, uid_t sender);

// Call before passing on a message whose `body` names a file. If the receiver is an ordinary user
// and the server has the right, the file becomes the receiver's alone, who can then read it and
// remove it even from a sticky directory. False if the sender has no right to hand the file over.
bool pass_hand_over(std::span<const char> body, uid_t sender, uid_t receiver);
// The same of a file that the server has made.
void give_hand_over(uint32_t number, uid_t receiver);

// Removes the hand-over file of a message that nobody gets, if the file belongs to the sender or
// was given to `receiver` already. It stays if the sender's user is not known. `swapped`: the
// header is in the other byte order.
void remove_sent_file(std::span<const char> frame, bool swapped, uid_t sender,
                      uid_t receiver = kUnknownUser) noexcept;

// Gives the receiver a name of its own for the hand-over file: a link if the receiver is root or
// the server is not, otherwise a copy. Returns the new name's number, or 0 with errno set.
uint32_t share_hand_over(const servers::UniqueFd &file, uid_t receiver);
// A new, empty file under a fresh number, open for writing, like those of the library. None, with
// errno set and *number untouched, on failure.
servers::UniqueFd create_hand_over(uint32_t *number);
// The body of a message that hands over the file of that number.
std::array<char, ORP_MSG_HAND_OVER_PATH_SIZE> hand_over_body(uint32_t number);
void remove_hand_over(uint32_t number);

}  // namespace msgsvr
