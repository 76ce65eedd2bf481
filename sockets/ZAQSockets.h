/**
 * @file
 * ZAQSockets: UDP sockets with a receive callback, and a parser for IP addresses.
 *
 * Conventions:
 * - Handles are opaque pointers; null means no socket. A destroyed handle must not be used.
 * - Results are pointers and counts, as described at each function. There are no error codes, and
 *   errno is undefined.
 * - Threads: any thread may call any function, for the same socket or different ones; but a
 *   socket must not be destroyed while another thread sends on it. Create, Destroy and the parser
 *   are no cancellation points (pthreads(7)).
 * - Callbacks for all sockets run on one thread of the library, one after the other. A callback
 *   that waits holds up all sockets. One that forks must exec or _exit in the child. While
 *   datagrams come steadily, at least 2000 a second, callbacks may come up to 4 ms after the
 *   datagrams, and never later than an eighth of the time in which a socket's buffer would fill.
 * - The library has two threads at most: one that receives, while receive sockets exist, and one
 *   that looks after group memberships, while sockets of groups exist. Both block all signals but
 *   those that a thread brings on itself. Its descriptors are 3 or higher, and are closed
 *   by exec. (Where the standard streams are closed, the system may give it their numbers for the
 *   moment until it has taken a higher one; nothing can be sent by them then.)
 * - Ports are in host byte order.
 * - Fork: in a child of fork() no callback runs for the sockets that it has inherited; they may
 *   be destroyed, which closes the child's descriptors. A child that goes on should exec
 *   before it makes sockets: another thread of the parent may have held a lock.
 * - Exit may come at any time. Before the library is unloaded, all sockets must have been
 *   destroyed. Both wait for a callback that has destroyed its own socket and still runs.
 * - Platforms: 64-bit Linux with glibc, from Linux 4.18 on. Some things need a newer kernel:
 *   an IPv6 socket gets no groups that only other sockets have joined (4.20); trains of datagrams
 *   are taken as one, and an IPv6 group comes from its interface only (5.0; before 5.7 the latter
 *   needs CAP_NET_RAW); sockets of different network namespaces are told apart (5.14).
 */
#ifndef ZAQSOCKETS_H
#define ZAQSOCKETS_H

#include <stdint.h>
#include <sys/socket.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Marks what the library exports. */
#define ZAQSOCKETS_API __attribute__((visibility("default")))

/**
 * Called once for each datagram.
 * @param socket    the handle
 * @param reserved  null
 * @param source    the sender's address (struct sockaddr_in or sockaddr_in6)
 * @param data      the datagram, whole, up to 65507 bytes; may be changed; valid until the return
 * @param length    its length in bytes; 0 for an empty datagram
 */
typedef void (*ZAQReceiveCallback)(void* socket, void* reserved, struct sockaddr* source,
                                   unsigned char* data, unsigned int length);

/**
 * Opens a socket.
 *
 * A receive socket of a group gets the datagrams to that group only, from the interfaces on which
 * it has joined (an IPv6 group for which no interface is named also from those on which other
 * sockets have joined it), and only from the source, where one is named. Any number of sockets,
 * also of other processes, may listen to one group and port. When its interface is deleted and made
 * again, or its local address moves to another one, the group is joined there within about a
 * second; where no interface is named, the system chooses again when its choice is gone. This needs
 * rtnetlink(7), and covers one network namespace at a time: that of the first group socket as long
 * as any group socket of it is open, and after that, that of the next one to be opened. A unicast
 * receive socket never shares its address and port with another one of this library, and a named
 * address with no socket at all. The any-address is refused where another socket has the port for
 * any address, for the loopback address, or for a named one that it does not share (SO_REUSEADDR);
 * groups on the same port are kept apart from it. An IPv6 socket does not take the IPv4 port. The
 * receive buffer is 8 MiB, or the most that the system grants.
 *
 * Returns the handle, or null with nothing left open. Callbacks may begin before the return.
 * @param localAddress     address of the interface to use, "0.0.0.0" or "::" = the system's choice;
 *                         an address alone, without source and DSCP
 * @param remoteAddress    as ZAQSocketsExtractIPAddress takes it. send: the destination; a source
 *                         is ignored, and a DSCP is set in what is sent. receive: the group to
 *                         join, or any unicast address of the same family, which is not used; a
 *                         DSCP is ignored
 * @param localPort        receive: the port to listen on. send: not used; the system chooses a
 *                         port, since a socket bound to the port that it sends to would take the
 *                         datagrams away from a receiver on the same machine
 * @param remotePort       send: destination port
 * @param multicast        1 = remoteAddress is a multicast group; must then agree with the address
 * @param send             1 = send socket, 0 = receive socket
 * @param multicastOption  receive from a group: 0 = join on the interface of localAddress (or of
 *                         the group's zone), 1 = join on every multicast-capable interface that is
 *                         up, also later, as far as the system lets one socket (for IPv4 20, the
 *                         sysctl net.ipv4.igmp_max_memberships); a group of interface or link scope
 *                         (ff01::, ff02::) has one zone, named by it or by localAddress, and is
 *                         joined there in either case
 * @param ttl              TTL (ip(7), IP_MULTICAST_TTL) or hop limit (ipv6(7)) of multicast
 *                         datagrams, 0 to 255
 * @param callback         receive: not null; not used by a send socket
 * @param context          what ZAQUDPSocket_GetContext returns
 */
ZAQSOCKETS_API void* ZAQUDPSocket_Create(const char* localAddress, const char* remoteAddress,
                                         uint32_t localPort, uint32_t remotePort, int32_t multicast,
                                         int32_t send, int32_t multicastOption, int32_t ttl,
                                         ZAQReceiveCallback callback, void* context);

/**
 * Closes the socket and frees what belongs to it. No callback runs for it after the return; one
 * that runs at the time is waited for, unless the call comes from a callback. Null does nothing.
 */
ZAQSOCKETS_API void ZAQUDPSocket_Destroy(void* socket);

/** Returns the context given to Create; null for null. Cheap, and allowed in a callback. */
ZAQSOCKETS_API void* ZAQUDPSocket_GetContext(void* socket);

/**
 * Sends `length` bytes (0 to 65507) as one datagram. Returns 1 when the system has taken all of
 * them, else 0. Blocks while the system's send queue is full, for about a second at most, or three
 * where signals interrupt it. That nobody listens at the destination is no failure.
 */
ZAQSOCKETS_API uint32_t ZAQUDPSocket_SendAll(void* socket, const unsigned char* data,
                                             uint32_t length);

/**
 * Parses a numeric address: dotted IPv4, or IPv6 as in RFC 4291, 2.2, with a zone behind '%' (an
 * existing interface's name, or a number; RFC 4007). Names, brackets, ports and spaces are refused.
 *
 * A group may stand behind its source and '@', for source-specific multicast (RFC 4607):
 * "192.0.2.9@232.1.1.1", "2001:db8::9@ff3e::1%eth0". The source is a unicast address of the same
 * family, without a zone. At the end there may be the DSCP of sent datagrams (RFC 2474), a number
 * from 0 to 63 of one or two digits: "239.1.1.1?dscp=34". The longest text has 116 characters.
 *
 * Returns 2 (AF_INET), 10 (AF_INET6), or 0 for what is not an address; the outputs are written only
 * when a family is returned, and describe the group where there is a source.
 * @param[in]  address    NUL-terminated text; may be null
 * @param[out] bytes      4 or 16 bytes in network order; may be null
 * @param[out] byteCount  4 or 16; may be null
 * @param[out] zone       interface number, 0 = none given; may be null
 * @param[out] multicast  1 = a multicast group, 0 = not; may be null
 */
ZAQSOCKETS_API uint32_t ZAQSocketsExtractIPAddress(const char* address, unsigned char* bytes,
                                                   uint32_t* byteCount, uint32_t* zone,
                                                   int32_t* multicast);

#ifdef __cplusplus
}
#endif

#endif
