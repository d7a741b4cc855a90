// Restful handlers: their registrations, the procedure that takes requests, and request messages.

#include "msgapi/restful.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "base/copy_failure.h"
#include "base/list.h"
#include "base/result.h"
#include "msg/dispatch.h"
#include "msg/send.h"

namespace msgapi::msg {
namespace {

using Request = ORP_MSG_RESTFUL_REQ_ST;
using Row = ORP_MSG_RESTFUL_ROW_ST;

static_assert(sizeof(Request) == 136);
static_assert(sizeof(void *) != 4 || sizeof(Row) == 8);

constexpr size_t kListSize = 4096;
constexpr size_t kEntrySize = 128;

// Bytes of a request message beyond its text: header, body fields and a NUL.
constexpr uint64_t kRequestOverhead = ORP_MSG_HEADER_SIZE + sizeof(Request) + 1;
constexpr uint32_t kFirstRefusedLength = 0xFFFFFF4F;

// Never removed. Chained in the order of registration.
struct RegisteredTable {
  RegisteredTable *next;
  char *path;
  const Row *table;
};
RegisteredTable *g_tables;

const Row *find_row(const Row *table, std::string_view name) {
  for (const Row *row = table; row->pcName != nullptr; ++row) {
    if (name == row->pcName) return row;
  }
  return nullptr;
}

ORP_MSG_RESTFUL_HANDLER find_handler(const Request &request) {
  const std::string_view path = field_text(request.aucPath);
  for (const RegisteredTable *each = g_tables; each != nullptr; each = each->next) {
    if (path != each->path) continue;
    // When a path has several registrations, only the first counts.
    const Row *row = find_row(each->table, field_text(request.aucHandler));
    return row == nullptr ? nullptr : row->pfHandler;
  }
  return nullptr;
}

// Handlers read the request's text as a string. A body without a NUL after its fields, which only
// damaged messages have, is handed to them as a terminated copy.
class RequestText {
 public:
  explicit RequestText(const Header &message) {
    const char *bytes = body(&message);
    const size_t text_length = message.ulDataLen - sizeof(Request);
    if (std::memchr(bytes + sizeof(Request), '\0', text_length) != nullptr) {
      request_ = reinterpret_cast<const Request *>(bytes);
      return;
    }
    copy_.reset(static_cast<char *>(guarded_alloc(uint64_t{message.ulDataLen} + 1)));
    if (!copy_) return;
    std::memcpy(copy_.get(), bytes, message.ulDataLen);
    copy_.get()[message.ulDataLen] = '\0';
    request_ = reinterpret_cast<const Request *>(copy_.get());
  }

  // Null without memory.
  const Request *get() const { return request_; }

 private:
  Owned<char> copy_;
  const Request *request_ = nullptr;
};

void respond(const Header &request, const char *text) {
  char to[ORP_APP_NAME_SIZE];
  copy_cut(to, sender(request));
  const size_t size = text == nullptr ? 0 : std::strlen(text) + 1;
  if (size > UINT32_MAX) return;
  // Nobody is left to be told about a response that cannot be sent.
  if (text == nullptr) {
    (void)send_header_under(request.ulSeqNum, to, request.ulMsgType, request.ulMsgData);
  } else {
    (void)send_content(to, request.ulMsgType, {text, size}, request.ulMsgData, request.ulSeqNum);
  }
}

void dispatch_request(Header *message) {
  if (message == nullptr || message->ulDataLen < sizeof(Request)) return;
  const RequestText request(*message);
  if (request.get() == nullptr) return;
  const ORP_MSG_RESTFUL_HANDLER handler = find_handler(*request.get());
  if (handler == nullptr) return;

  char *text = nullptr;
  const uint32_t status = handler(request.get(), &text);
  const Owned<char> response(text);
  if (status == 0) respond(*message, text);
}

// The dispatcher is registered once in a process. After a failure the next call continues where
// this one stopped.
Status register_dispatcher() {
  constexpr uint32_t kTypes[] = {ORP_MSG_RESTFUL_REQUEST_A, ORP_MSG_RESTFUL_REQUEST,
                                 ORP_MSG_RESTFUL_REQUEST_E};
  static size_t registered = 0;
  for (; registered < std::size(kTypes); ++registered) {
    const Status status =
        register_procedure(kTypes[registered], dispatch_request, nullptr, 0).status();
    if (status != Status::kOk) return status;
  }
  return Status::kOk;
}

// "path/row|path/row..." as far as it fits. False when an entry is too long to be built.
bool expand_rows(std::string_view path, const Row *table, std::span<char, kListSize> out) {
  size_t length = 0;
  for (const Row *row = table; row->pcName != nullptr; ++row) {
    char entry[kEntrySize];
    if (path.size() + 1 + std::strlen(row->pcName) >= sizeof entry ||
        !format_exact(entry, "%s/%s", path.data(), row->pcName)) {
      print_copy_failure("snprintf_s", -1);
      return false;
    }
    const std::string_view separator = length == 0 ? "" : "|";
    const std::string_view text = entry;
    if (length + separator.size() + text.size() >= out.size()) break;
    copy_cut(out.subspan(length), separator);
    copy_cut(out.subspan(length + separator.size()), text);
    length += separator.size() + text.size();
  }
  out[length] = '\0';
  return true;
}

Status announce(const char *path, const Row *table, bool expand) {
  char list[kListSize];
  const char *text = path;
  if (expand) {
    if (!expand_rows(path, table, list)) return Status::kNoMemory;
    text = list;
  }
  const size_t size = std::strlen(text) + 1;
  if (size > UINT32_MAX) return Status::kNoMemory;
  return send_content(kServer, ORP_MSG_RESTFUL_REGISTER, {text, size});
}

Status register_table(const char *path, const Row *table, bool expand) {
  if (path == nullptr || table == nullptr) return Status::kBadArgument;
  Status status = announce(path, table, expand);
  if (status != Status::kOk) return status;

  Owned<RegisteredTable> registration = make<RegisteredTable>(nullptr, nullptr, table);
  Owned<char> path_copy = duplicate_text(path);
  if (!registration || !path_copy) return Status::kNoMemory;
  status = register_dispatcher();
  if (status != Status::kOk) return status;
  registration->path = path_copy.release();
  list_append(g_tables, registration.release());
  return Status::kOk;
}

Owned<Header> build_request(uint32_t code_word, uint32_t second, std::string_view path,
                            std::string_view handler, const char *text, uint32_t text_length) {
  if (text_length >= kFirstRefusedLength) return nullptr;
  Owned<Header> message(static_cast<Header *>(guarded_zalloc(kRequestOverhead + text_length)));
  if (!message) return nullptr;

  *message = build_header(kServer, ORP_MSG_RESTFUL_REQUEST, 0);
  message->ulDataLen = static_cast<uint32_t>(sizeof(Request) + 1) + text_length;
  auto *request = reinterpret_cast<Request *>(body(message.get()));
  request->ulCode = code_word;
  request->ulSecond = second;
  // If they were cut, they would select another handler.
  if (!copy_or_report(request->aucPath, path) || !copy_or_report(request->aucHandler, handler)) {
    return nullptr;
  }
  if (text != nullptr) {
    char *place = body(message.get()) + sizeof(Request);
    copy_cut({place, size_t{text_length} + 1}, {text, ::strnlen(text, text_length)});
  }
  return message;
}

}  // namespace
}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_MSG_RegRestfulProcEx(const char *path, const ORP_MSG_RESTFUL_ROW_ST *table,
                                             uint32_t expand) {
  return code(register_table(path, table, expand != 0));
}

extern "C" uint32_t ORP_MSG_RegRestfulProc(const char *path, const ORP_MSG_RESTFUL_ROW_ST *table) {
  return code(register_table(path, table, /*expand=*/false));
}

extern "C" ORP_MSG_HEADER_ST *ORP_MSG_BuildRestfulReqMsg(uint32_t code, uint32_t second,
                                                         const char *path, const char *handlerName,
                                                         const char *text, uint32_t textLength) {
  return build_request(code, second, text_or_empty(path), text_or_empty(handlerName), text,
                       textLength)
      .release();
}

extern "C" uint32_t ORP_MSG_SendRestfulResponseMsg(const char *dstApp, uint32_t type,
                                                   const void *body, uint32_t bodyLength,
                                                   uint32_t data, uint32_t seq) {
  if (body == nullptr || bodyLength >= 0xFFFFFFD7) return code(Status::kBadArgument);
  return code(send_content(text_or_empty(dstApp), type, content_of(body, bodyLength), data, seq));
}
