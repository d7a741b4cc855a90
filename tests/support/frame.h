// A message on the wire, for tests and fuzz targets.
#pragma once

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "msgapi/msg.h"

namespace test {

inline void swap_words(ORP_MSG_HEADER_ST *header) {
  for (uint32_t *word :
       {&header->ulMsgType, &header->ulSeqNum, &header->ulMsgData, &header->ulDataLen}) {
    *word = __builtin_bswap32(*word);
  }
}

// A message outside the library. Twelve characters fill a name's field without a NUL.
struct Frame {
  uint32_t type = 0;
  std::string to = {};
  std::string body = {};
  uint32_t data = 0;
  uint32_t sequence = 0;
  std::string from = {};

  bool operator==(const Frame &) const = default;
  // The bytes on the wire: from `sender` unless that is empty, and with `swapped` in the other byte
  // order.
  std::string bytes(std::string_view sender = {}, bool swapped = false) const {
    ORP_MSG_HEADER_ST header = {};
    header.ulMsgType = type;
    header.ulSeqNum = sequence;
    header.ulMsgData = data;
    header.ulDataLen = static_cast<uint32_t>(body.size());
    (sender.empty() ? std::string_view(from) : sender).copy(header.aucSendApp, ORP_APP_NAME_SIZE);
    to.copy(header.aucRecvApp, ORP_APP_NAME_SIZE);
    if (swapped) swap_words(&header);
    return std::string(reinterpret_cast<const char *>(&header), sizeof header) + body;
  }
};

// Sends `bytes` with these descriptors in one write; false when that fails.
inline bool send_with_descriptors(int fd, std::string bytes, std::span<const int> descriptors) {
  std::vector<char> control(CMSG_SPACE(descriptors.size_bytes()));
  iovec piece{bytes.data(), bytes.size()};
  msghdr message{};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr *header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(descriptors.size_bytes());
  std::copy_n(reinterpret_cast<const unsigned char *>(descriptors.data()), descriptors.size_bytes(),
              CMSG_DATA(header));
  return ::sendmsg(fd, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

}  // namespace test
