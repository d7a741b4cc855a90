// Message blocks: building, copying and converting them.

#include "msg/header.h"

#include <cstring>

#include "base/bytes.h"
#include "msg/context.h"

namespace msgapi::msg {
namespace {

constexpr uint32_t kMaxResponseBody = 0x7fffffd6;   // 40 + body stays below 2^31
constexpr uint32_t kMaxDuplicateBody = 0xffffffd6;  // 40 + body stays below 2^32

Owned<Header> build_response(const Header &request, uint32_t data, const void *content,
                             uint32_t size) {
  Owned<Header> response = allocate_message(content == nullptr ? 0 : size);
  if (!response) return nullptr;

  if (content == nullptr) {
    // Takes a number from the counter, although the request's own replaces it.
    *response = build_header(sender(request), request.ulMsgType, data);
  } else {
    copy_cut(response->aucRecvApp, sender(request));
    response->ulMsgType = request.ulMsgType;
    response->ulMsgData = data;
    std::memcpy(body(response.get()), content, size);
  }
  response->ulSeqNum = request.ulSeqNum;
  return response;
}

}  // namespace

Header build_header(std::string_view destination, uint32_t type, uint32_t data) {
  Header header = {};
  header.ulMsgType = type;
  header.ulMsgData = data;
  header.ulSeqNum = next_sequence_number();
  copy_cut(header.aucRecvApp, destination);
  return header;
}

NameMessage build_name_message(uint32_t type, uint32_t data, std::string_view name) {
  NameMessage message = {build_header({}, type, data), {}};
  message.header.ulDataLen = sizeof message.name;
  copy_cut(message.name, name);
  return message;
}

Owned<Header> allocate_message(uint32_t body_size) {
  Owned<Header> message(
      static_cast<Header *>(guarded_alloc(uint64_t{ORP_MSG_HEADER_SIZE} + body_size)));
  if (message) {
    *message = {};
    message->ulDataLen = body_size;
  }
  return message;
}

void swap_header(Header *header) {
  header->ulMsgType = swap_bytes(header->ulMsgType);
  header->ulSeqNum = swap_bytes(header->ulSeqNum);
  header->ulMsgData = swap_bytes(header->ulMsgData);
  header->ulDataLen = swap_bytes(header->ulDataLen);
}

}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" void ORP_MSG_SimpleBuilder(ORP_MSG_HEADER_ST *header, const char *dstApp, uint32_t type,
                                      uint32_t data) {
  if (header != nullptr) *header = build_header(text_or_empty(dstApp), type, data);
}

extern "C" ORP_MSG_HEADER_ST *ORP_MSG_MsgRespBuilder(const ORP_MSG_HEADER_ST *request,
                                                     uint32_t data, const void *body,
                                                     uint32_t bodyLen) {
  if (request == nullptr || (body != nullptr && bodyLen > kMaxResponseBody)) return nullptr;
  return build_response(*request, data, body, bodyLen).release();
}

extern "C" void *ORP_MSG_GetMsgBlock(uint32_t bodyLen) {
  Header *message = allocate_message(bodyLen).release();
  return message == nullptr ? nullptr : message + 1;
}

extern "C" void *ORP_MSG_GetMsgBlockEx(void *buffer, uint32_t bufferLen) {
  if (buffer == nullptr || bufferLen < ORP_MSG_HEADER_SIZE) return nullptr;
  std::memset(buffer, 0, ORP_MSG_HEADER_SIZE);
  Header *message = static_cast<Header *>(buffer);
  message->ulDataLen = bufferLen - ORP_MSG_HEADER_SIZE;
  return message + 1;
}

extern "C" ORP_MSG_HEADER_ST *ORP_MSG_GetMsgHead(void *body) {
  return body == nullptr ? nullptr : static_cast<Header *>(body) - 1;
}

extern "C" void *ORP_MSG_GetMsgByHeader(ORP_MSG_HEADER_ST *header) {
  return header == nullptr || header->ulDataLen == 0 ? nullptr : header + 1;
}

extern "C" ORP_MSG_HEADER_ST *ORP_MSG_Duplicate(const ORP_MSG_HEADER_ST *message) {
  if (message == nullptr || message->ulDataLen > kMaxDuplicateBody) return nullptr;
  Owned<Header> copy = allocate_message(message->ulDataLen);
  if (copy) std::memcpy(copy.get(), message, static_cast<size_t>(block_size(*message)));
  return copy.release();
}

extern "C" void ORP_MSG_HeadEndianSwap(ORP_MSG_HEADER_ST *header) {
  if (header != nullptr) swap_header(header);
}

extern "C" uint32_t ORP_MSG_BodyNeedEndianSwap(const ORP_MSG_HEADER_ST * /*message*/) {
  return 0;
}

extern "C" const char *ORP_MSG_GetVersion(void) {
  return "V1.01";
}
