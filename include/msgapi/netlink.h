/*
 * The kernel over netlink (netlink(7), rtnetlink(7)): a datagram for the platform's load-balancing
 * module, and the traffic counters of an interface.
 */
#ifndef MSGAPI_NETLINK_H
#define MSGAPI_NETLINK_H

#include <stdint.h>

#include "msgapi/export.h"

/*
 * The traffic counters of one interface: the kernel's struct rtnl_link_stats (linux/if_link.h) as
 * the attribute IFLA_STATS carries it. 96 bytes; every counter wraps at 2^32.
 */
typedef struct ORP_UTIL_DEV_STATS_ST {
  /* Good packets and their bytes. */
  uint32_t rx_packets;
  uint32_t tx_packets;
  uint32_t rx_bytes;
  uint32_t tx_bytes;
  /* Bad packets and failures to send, in all; the kinds are told apart below. */
  uint32_t rx_errors;
  uint32_t tx_errors;
  /* Packets for which there was no room, and received ones that nobody wanted. */
  uint32_t rx_dropped;
  uint32_t tx_dropped;
  uint32_t multicast;  /* multicast packets received */
  uint32_t collisions; /* while sending */
  /* The kinds of rx_errors. */
  uint32_t rx_length_errors;
  uint32_t rx_over_errors;
  uint32_t rx_crc_errors;
  uint32_t rx_frame_errors;
  uint32_t rx_fifo_errors;
  uint32_t rx_missed_errors;
  /* The kinds of tx_errors. */
  uint32_t tx_aborted_errors;
  uint32_t tx_carrier_errors;
  uint32_t tx_fifo_errors;
  uint32_t tx_heartbeat_errors;
  uint32_t tx_window_errors;
  /* Packets of a compressing line (SLIP, PPP). */
  uint32_t rx_compressed;
  uint32_t tx_compressed;
  uint32_t rx_nohandler; /* 0 from kernels before 4.6, which do not count it */
} ORP_UTIL_DEV_STATS_ST;

/*
 * Sends one datagram to the kernel module that serves netlink protocol 25.
 *
 * The datagram is a netlink header of 16 bytes in host order (length `len` + 16, type `port`, flags
 * 0, sequence 0, port id `port`), the `len` bytes of `data` and zeros up to a multiple of 4. It is
 * sent from a socket with the port id `port` (0 lets the kernel choose), which is open for this
 * call only. Keeps no state and may be called from any thread.
 *
 * Returns 0 once the datagram was handed over, also when the kernel refused it (reported as "send
 * failed for balance\n" through perror). Returns 1 when the kernel does not know the protocol, the
 * port id is taken (reported as "bind error\n" through perror), `data` is null, or there is no
 * memory for `len` bytes.
 */
MSGAPI_EXPORT uint32_t ORP_Netlink_SendToKernel(const void *data, uint32_t len, uint16_t port);

/*
 * Fills `stats` with the counters of the interface `ifName` (1 to 15 characters), read over routing
 * netlink. Leaves it as it was on any failure: no such interface, an answer longer than 2048 bytes,
 * no sockets. Null arguments and an empty name do nothing. When the kernel answers with an error
 * message, errno holds its number.
 *
 * The first call opens two sockets that the process keeps; a forked child opens its own. When they
 * cannot be opened, the call prints "error for netlink init\r" and the next one tries again. The
 * netlink socket's port id is the process id with the bits of 0x98765421 set. When the ids of two
 * processes differ in no other bit, only the first can read. One caller at a time.
 */
MSGAPI_EXPORT void ORP_UTIL_GetDevStats(const char *ifName, ORP_UTIL_DEV_STATS_ST *stats);

/* The same function under its older name. */
MSGAPI_EXPORT void ORP_UTIL_get_dev_stats(const char *ifName, ORP_UTIL_DEV_STATS_ST *stats);

#endif
