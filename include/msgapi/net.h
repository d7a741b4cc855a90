/*
 * Server sockets, multicast membership, name resolution into lists of addresses that the library
 * owns, and whether a TCP port is in use.
 *
 * Unless a function says otherwise it keeps nothing and may be called from any thread.
 */
#ifndef MSGAPI_NET_H
#define MSGAPI_NET_H

#include <stdint.h>
#include <sys/socket.h>

#include "msgapi/export.h"

/* Flags of sockets and address lookups. */
#define ORP_SOCKET_DATAGRAM 0x1u /* UDP; TCP without it */
#define ORP_SOCKET_IPV6 0x4u
#define ORP_SOCKET_UNIX 0x8u /* a Unix-domain stream socket; the address is its path */

/* What server-socket functions return on failure. */
#define ORP_INVALID_SOCKET 0xFFFFFFFFu

/*
 * One address of a list; its fields are those of struct addrinfo (getaddrinfo(3)). A record that
 * the library makes is one block: the record, the address that `addr` points to, and the canonical
 * name if there is one. Release lists with ORP_UTIL_FreeAddrInfo.
 */
typedef struct ORP_UTIL_ADDRINFO_ST {
  int32_t flags;                     /* AI_* */
  int32_t family;                    /* AF_* */
  int32_t socktype;                  /* SOCK_* */
  int32_t protocol;                  /* IPPROTO_*, or 0 */
  uint32_t addrlen;                  /* bytes at `addr` */
  struct sockaddr *addr;             /* port in network order, as the kernel takes it */
  char *canonname;                   /* or null */
  struct ORP_UTIL_ADDRINFO_ST *next; /* null: the last one */
} ORP_UTIL_ADDRINFO_ST;

/*
 * A resolver that takes the place of ORP_UTIL_GetIpAddresses. It is called with that function's
 * arguments, with `*out` null, stores a list made by the library's functions, and returns the
 * status that ORP_UTIL_GetIpAddresses then returns.
 */
typedef uint32_t (*ORP_UTIL_NAME_RESOLVE)(const char *host, ORP_WORD argument, uint32_t port,
                                          ORP_UTIL_ADDRINFO_ST **out);

/*
 * Creates a server socket that is bound but not listening; its descriptor is close-on-exec.
 *
 * With ORP_SOCKET_UNIX `address` is a path of at most 107 characters. A longer one is cut to 107,
 * with the line "UtilCreateUnixDomainSock getpath error .". A file that is already at the path is
 * removed, and the socket is bound there with the permissions 0660. When the path is safe in a
 * command (ORP_VALID_CmdArgs), the command "chown" gives the socket to group 2591. `port` and
 * `device` do not count.
 *
 * Otherwise `address` is a numeric IPv4 or IPv6 address (one with ":" implies ORP_SOCKET_IPV6),
 * null for all addresses, or the name of an interface: the socket is then bound to all addresses
 * and to that interface. `port` is at most 65535; 0 lets the kernel choose.
 *
 * The socket gets SO_REUSEADDR, TCP_NODELAY, the platform's receive options (type of service and
 * receive device), for UDP a receive time-out of 2 seconds, and for IPv6 IPV6_V6ONLY. A receive
 * option that the kernel does not have is reported on standard output and left out. The scope of an
 * IPv6 address is the interface `device`; when that is null, it is "br0" for link-local addresses
 * and for every UDP socket. A scope within `address` does not count.
 *
 * Returns the descriptor, or ORP_INVALID_SOCKET, with errno of the call that failed if one did.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_SocketCreateServerEx(const char *address, uint32_t port,
                                                     uint32_t flags, const char *device);

/* The same with a null device. */
MSGAPI_EXPORT uint32_t ORP_UTIL_SocketCreateServer(const char *address, uint32_t port,
                                                   uint32_t flags);

/*
 * Clears O_NONBLOCK, shuts the socket down in both directions and closes the descriptor; other
 * kinds of descriptors are closed too. Returns 0, or 0xFFFFFFFF with errno set. Also 0 for an
 * interrupted close, which releases the descriptor (close(2)), and for a negative descriptor, which
 * is ignored.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_SocketClose(int32_t fd);

/* Sets IP_MULTICAST_TTL. Returns the result of setsockopt() (0, or 0xFFFFFFFF with errno), or
 * ORP_ERR_ARGUMENT for the descriptor -1. */
MSGAPI_EXPORT uint32_t ORP_UTIL_SocketSetTTL(int32_t fd, uint8_t ttl);

/* Does nothing: the outgoing interface is chosen when a group is joined. Returns 0. */
MSGAPI_EXPORT uint32_t ORP_UTIL_SocketSetMcastIf(int32_t fd, const char *ifName);

/*
 * Joins the multicast group `group` (numeric) on the socket `fd` and allows broadcasts on it.
 *
 * The family of `local` chooses the interface. For AF_INET it is the one that has the address
 * `local`: the group is joined there, and multicasts leave from it. For AF_INET6 the group is
 * joined at the interface `ifName`, and a failure to do so is not reported.
 *
 * Returns 0; ORP_ERR_ARGUMENT for a negative descriptor, null arguments, a `local` without an IPv4
 * or IPv6 address, or an IPv4 group that cannot be read; or ORP_ERR_SYSTEM when an IPv4 group
 * cannot be joined.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_SocketJoinMcastEx(int32_t fd, const char *group,
                                                  const ORP_UTIL_ADDRINFO_ST *local,
                                                  const char *ifName);

/* The same with the interface "br0". */
MSGAPI_EXPORT uint32_t ORP_UTIL_SocketJoinMcast(int32_t fd, const char *group,
                                                const ORP_UTIL_ADDRINFO_ST *local);

/* Installs the process's resolver hook; null removes it. Call it before any thread resolves. */
MSGAPI_EXPORT void ORP_UTIL_RegNameResolveFunc(ORP_UTIL_NAME_RESOLVE resolver);

/*
 * Resolves `host` to a list of stream-socket addresses with `port` (at most 65535) in *out, which
 * is set to null first.
 *
 * A hook, when installed, does all of it; `argument` is for the hook alone. Otherwise the C library
 * resolves, and once more when it says EAI_AGAIN: to IPv4 addresses, or to addresses of any family
 * when the configuration parameter 0x6A205A01 is 1 and `host` is not an IPv4 address. May block for
 * as long as the system's resolver does.
 *
 * Returns 0, after which the caller owns *out (ORP_UTIL_FreeAddrInfo); ORP_ERR_ARGUMENT for null
 * pointers and for a port above 65535 (with the line "ORP_UTIL_GetIpAddresses copy port error.");
 * ORP_ERR_MEMORY; ORP_ERR_SYSTEM when there is no such name; or what the hook returns.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetIpAddresses(const char *host, ORP_WORD argument, uint32_t port,
                                               ORP_UTIL_ADDRINFO_ST **out);

/*
 * The list of addresses that the numeric `host` and `port` (at most 65535) stand for, with the
 * socket type that `flags` ask for; a null host gives the wildcard addresses of both families. Null
 * when `host` is not numeric or there is no memory. The caller owns the list.
 */
MSGAPI_EXPORT ORP_UTIL_ADDRINFO_ST *ORP_UTIL_ParseIPAddress(uint32_t flags, const char *host,
                                                            uint32_t port);

/*
 * A list of one record that holds a copy of `length` bytes of `address`, with the family (AF_INET,
 * or AF_INET6 with ORP_SOCKET_IPV6) and socket type that `flags` ask for. Null without memory, for
 * lengths above 0xFFFFFFDE, and, with the line "ORP_UTIL_MakeAddrInfo copy sockaddr error", when
 * there is no address to copy (null, or length 0). The caller owns the list.
 */
MSGAPI_EXPORT ORP_UTIL_ADDRINFO_ST *ORP_UTIL_MakeAddrInfo(uint32_t flags,
                                                          const struct sockaddr *address,
                                                          uint32_t length);

/*
 * A copy of the whole `list`, or of its first record only with `wholeChain` 0. Null for null and
 * without memory. The caller owns the copy.
 */
MSGAPI_EXPORT ORP_UTIL_ADDRINFO_ST *ORP_UTIL_CopyAddrInfo(const ORP_UTIL_ADDRINFO_ST *list,
                                                          uint32_t wholeChain);

/* Releases a list that the library made; null is ignored. */
MSGAPI_EXPORT void ORP_UTIL_FreeAddrInfo(ORP_UTIL_ADDRINFO_ST *list);

/*
 * 1 when two records hold the same address, whatever their ports: both have one, of equal length
 * (at least 12), and the bytes after family and port are equal. For IPv4 only the four bytes of the
 * address count. Else 0, also for null.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_IsAddrInfoSame(const ORP_UTIL_ADDRINFO_ST *left,
                                               const ORP_UTIL_ADDRINFO_ST *right);

/* 1 when the record holds 127.0.0.1 or ::1; else 0, also for other addresses of 127/8 and for
 * null. */
MSGAPI_EXPORT uint32_t ORP_UTIL_IsAddrLoopback(const ORP_UTIL_ADDRINFO_ST *record);

/*
 * 1 when a TCP socket over IPv4 listens on `port`, whatever its address; else 0, also when
 * /proc/net/tcp cannot be opened. Lines of that file that do not hold a socket, such as its heading
 * on every call, are reported as "<process id> msgapi parse tcpfile failed!\n".
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_CheckTCPPortInUse(uint32_t port);

#endif
