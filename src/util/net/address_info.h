// Lists of addresses that the library owns.
#pragma once

#include <memory>

#include "msgapi/net.h"

namespace msgapi::net {

// Frees every record of the chain, which may be null.
void free_addresses(ORP_UTIL_ADDRINFO_ST *list);

struct AddressListDeleter {
  void operator()(ORP_UTIL_ADDRINFO_ST *list) const { free_addresses(list); }
};
using AddressList = std::unique_ptr<ORP_UTIL_ADDRINFO_ST, AddressListDeleter>;

// The addresses of the numeric `host` and `port`, of both families; the wildcard ones for a null
// `host`. Null when there are none or no memory.
AddressList parse_address(uint32_t flags, const char *host, uint32_t port);

}  // namespace msgapi::net
