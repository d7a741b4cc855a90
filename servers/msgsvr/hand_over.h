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

// Whether `path` is a regular file that a sender of that user may hand over: its own, root's may be
// any. Of a sender on another board the user is not known (-1), and every file is taken for its
// own.
bool may_hand_over(const std::string &path, uid_t sender);

// A message that nobody gets, with its header `swapped` or not: if its body is in a file, and that
// is its sender's, the file goes, too. One of a sender whose user is not known stays.
void remove_sent_file(std::span<const char> frame, bool swapped, uid_t sender) noexcept;

// Gives a regular hand-over file one more name, which is reached without copying it. Returns the
// new name's number, or 0 when that is not possible.
uint32_t link_hand_over(const std::string &path);
// A new, empty file under a fresh number, open for writing, as the library makes them. None with
// errno set and *number untouched when that is not possible.
servers::UniqueFd create_hand_over(uint32_t *number);
// The body of a message that hands over the file of that number.
std::array<char, ORP_MSG_HAND_OVER_PATH_SIZE> hand_over_body(uint32_t number);
void remove_hand_over(uint32_t number);

}  // namespace msgsvr
