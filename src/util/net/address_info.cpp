// Address lists: records in one block each, made from numeric text, socket addresses, other lists,
// and names.

#include "util/net/address_info.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <span>
#include <utility>

#include "base/memory.h"
#include "base/status.h"
#include "base/text.h"
#include "cfmapi.h"

namespace msgapi::net {
namespace {

using Record = ORP_UTIL_ADDRINFO_ST;

// The longest address that a record holds: together with the 32 bytes of a record on the device and
// one byte more it still fits 32 bits.
constexpr uint32_t kMaxAddressSize = 0xFFFFFFDE;

static_assert(sizeof(Record) == (sizeof(void *) == 4 ? 32 : 48));
static_assert(sizeof(Record) == sizeof(addrinfo));

ORP_UTIL_NAME_RESOLVE g_resolver;

struct LibcListDeleter {
  void operator()(addrinfo *list) const { ::freeaddrinfo(list); }
};
using LibcList = std::unique_ptr<addrinfo, LibcListDeleter>;

// A single record like `source`, with copies of what it points to.
AddressList copy_record(const Record &source) {
  const uint32_t address_size = source.addr == nullptr ? 0 : source.addrlen;
  const size_t name_size = source.canonname == nullptr ? 0 : std::strlen(source.canonname) + 1;

  void *block = guarded_alloc(uint64_t{sizeof(Record)} + address_size + name_size);
  if (block == nullptr) return nullptr;

  char *place = static_cast<char *>(block) + sizeof(Record);
  AddressList copy(new (block) Record(source));
  copy->next = nullptr;
  copy->addrlen = address_size;
  if (source.addr != nullptr) {
    copy->addr = reinterpret_cast<sockaddr *>(place);
    std::memcpy(place, source.addr, address_size);
  }
  if (source.canonname != nullptr) {
    copy->canonname = place + address_size;
    std::memcpy(copy->canonname, source.canonname, name_size);
  }
  return copy;
}

// A chain that grows at its end.
class ListBuilder {
 public:
  ListBuilder() = default;
  ListBuilder(const ListBuilder &) = delete;
  ListBuilder &operator=(const ListBuilder &) = delete;
  ~ListBuilder() { free_addresses(first_); }

  // False without memory.
  bool append(const Record &source) {
    *end_ = copy_record(source).release();
    if (*end_ == nullptr) return false;
    end_ = &(*end_)->next;
    return true;
  }
  AddressList take() { return AddressList(std::exchange(first_, nullptr)); }

 private:
  Record *first_ = nullptr;
  Record **end_ = &first_;
};

AddressList copy_libc_list(const addrinfo *list) {
  ListBuilder copy;
  for (; list != nullptr; list = list->ai_next) {
    const Record record{list->ai_flags,   list->ai_family, list->ai_socktype,  list->ai_protocol,
                        list->ai_addrlen, list->ai_addr,   list->ai_canonname, nullptr};
    if (!copy.append(record)) return nullptr;
  }
  return copy.take();
}

bool print_port(uint32_t port, std::span<char> out) {
  return port <= UINT16_MAX && format_exact(out, "%u", port);
}

constexpr size_t kPortTextSize = sizeof "65535";

bool is_ipv4_literal(const char *host) {
  in_addr address;
  return ::inet_pton(AF_INET, host, &address) == 1;
}

int family_to_resolve(const char *host) {
  uint32_t any_family = 0;
  const bool known =
      ORP_DBGetPara(nullptr, CFM_PARA_RESOLVE_ANY_FAMILY, &any_family, sizeof any_family) == CFM_OK;
  return known && any_family == 1 && !is_ipv4_literal(host) ? AF_UNSPEC : AF_INET;
}

Status resolve(const char *host, uint32_t port, Record **out) {
  addrinfo hints{};
  hints.ai_family = family_to_resolve(host);
  hints.ai_socktype = SOCK_STREAM;

  std::array<char, kPortTextSize> service;
  if (!print_port(port, service)) {
    std::printf("ORP_UTIL_GetIpAddresses copy port error.");
    return Status::kBadArgument;
  }

  addrinfo *found = nullptr;
  int error = ::getaddrinfo(host, service.data(), &hints, &found);
  const bool interrupted = error == EAI_SYSTEM && (errno == EINTR || errno == EAGAIN);
  if (error == EAI_AGAIN || interrupted) {
    error = ::getaddrinfo(host, service.data(), &hints, &found);
  }
  if (error != 0 || found == nullptr) return Status::kSystem;

  const LibcList libc_list(found);
  *out = copy_libc_list(found).release();
  return *out == nullptr ? Status::kNoMemory : Status::kOk;
}

const sockaddr_in *as_ipv4(const Record &record) {
  const bool is_ipv4 = record.addr->sa_family == AF_INET && record.addrlen >= sizeof(sockaddr_in);
  return is_ipv4 ? reinterpret_cast<const sockaddr_in *>(record.addr) : nullptr;
}

bool is_same_address(const Record &left, const Record &right) {
  constexpr uint32_t kSmallest = 12;
  constexpr size_t kAddressStart = offsetof(sockaddr_in, sin_addr);  // after family and port
  if (left.addr == nullptr || right.addr == nullptr) return false;
  if (left.addrlen != right.addrlen || left.addrlen < kSmallest) return false;

  // The rest of an IPv4 address structure is padding.
  const bool ipv4 = left.addr->sa_family == AF_INET && right.addr->sa_family == AF_INET;
  const size_t size = ipv4 ? sizeof(in_addr) : left.addrlen - kAddressStart;
  return std::memcmp(reinterpret_cast<const char *>(left.addr) + kAddressStart,
                     reinterpret_cast<const char *>(right.addr) + kAddressStart, size) == 0;
}

bool is_loopback(const Record &record) {
  if (record.addr == nullptr || record.addrlen < sizeof(sockaddr_in)) return false;
  // Only 127.0.0.1, no other address of 127/8: deliberate.
  if (const sockaddr_in *ipv4 = as_ipv4(record)) {
    return ipv4->sin_addr.s_addr == htonl(INADDR_LOOPBACK);
  }
  return record.addr->sa_family == AF_INET6 && record.addrlen >= sizeof(sockaddr_in6) &&
         IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6 *>(record.addr)->sin6_addr);
}

}  // namespace

void free_addresses(ORP_UTIL_ADDRINFO_ST *list) {
  while (list != nullptr) {
    ORP_UTIL_ADDRINFO_ST *next = list->next;
    std::free(list);
    list = next;
  }
}

AddressList parse_address(uint32_t flags, const char *host, uint32_t port) {
  addrinfo hints{};
  hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST;
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = (flags & ORP_SOCKET_DATAGRAM) != 0 ? SOCK_DGRAM : SOCK_STREAM;

  std::array<char, kPortTextSize> service;
  addrinfo *found = nullptr;
  if (!print_port(port, service)) return nullptr;
  if (::getaddrinfo(host, service.data(), &hints, &found) != 0) return nullptr;

  const LibcList libc_list(found);
  return copy_libc_list(found);
}

}  // namespace msgapi::net

using namespace msgapi;
using namespace msgapi::net;

extern "C" void ORP_UTIL_RegNameResolveFunc(ORP_UTIL_NAME_RESOLVE resolver) {
  g_resolver = resolver;
}

extern "C" uint32_t ORP_UTIL_GetIpAddresses(const char *host, ORP_WORD argument, uint32_t port,
                                            ORP_UTIL_ADDRINFO_ST **out) {
  if (host == nullptr || out == nullptr) return ORP_ERR_ARGUMENT;

  *out = nullptr;
  if (g_resolver != nullptr) return g_resolver(host, argument, port, out);
  return code(resolve(host, port, out));
}

extern "C" ORP_UTIL_ADDRINFO_ST *ORP_UTIL_ParseIPAddress(uint32_t flags, const char *host,
                                                         uint32_t port) {
  return parse_address(flags, host, port).release();
}

extern "C" ORP_UTIL_ADDRINFO_ST *ORP_UTIL_MakeAddrInfo(uint32_t flags,
                                                       const struct sockaddr *address,
                                                       uint32_t length) {
  if (length > kMaxAddressSize) return nullptr;
  if (address == nullptr || length == 0) {
    std::printf("ORP_UTIL_MakeAddrInfo copy sockaddr error");
    return nullptr;
  }

  ORP_UTIL_ADDRINFO_ST record{};
  record.family = (flags & ORP_SOCKET_IPV6) != 0 ? AF_INET6 : AF_INET;
  record.socktype = (flags & ORP_SOCKET_DATAGRAM) != 0 ? SOCK_DGRAM : SOCK_STREAM;
  record.addrlen = length;
  record.addr = const_cast<sockaddr *>(address);
  return copy_record(record).release();
}

extern "C" ORP_UTIL_ADDRINFO_ST *ORP_UTIL_CopyAddrInfo(const ORP_UTIL_ADDRINFO_ST *list,
                                                       uint32_t wholeChain) {
  ListBuilder copy;
  for (; list != nullptr; list = wholeChain != 0 ? list->next : nullptr) {
    if (!copy.append(*list)) return nullptr;
  }
  return copy.take().release();
}

extern "C" void ORP_UTIL_FreeAddrInfo(ORP_UTIL_ADDRINFO_ST *list) {
  free_addresses(list);
}

extern "C" uint32_t ORP_UTIL_IsAddrInfoSame(const ORP_UTIL_ADDRINFO_ST *left,
                                            const ORP_UTIL_ADDRINFO_ST *right) {
  return left != nullptr && right != nullptr && is_same_address(*left, *right) ? 1 : 0;
}

extern "C" uint32_t ORP_UTIL_IsAddrLoopback(const ORP_UTIL_ADDRINFO_ST *record) {
  return record != nullptr && is_loopback(*record) ? 1 : 0;
}
