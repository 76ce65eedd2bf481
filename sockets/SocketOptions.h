// Opens sockets that send, and sockets that receive unicast.
#ifndef SOCKETS_SOCKETOPTIONS_H
#define SOCKETS_SOCKETOPTIONS_H

#include "Address.h"
#include "Descriptor.h"
#include "Interfaces.h"

namespace zaqsockets {

// Connected to `remote`, with this port; bound to `local` unless that is the any-address. The
// descriptor is empty, with nothing left open, when any step fails.
Descriptor OpenSendSocket(const Address& local, const RemoteAddress& remote, uint32_t port,
                          int ttl);

// Bound to `local` and this port. Empty as above.
Descriptor OpenUnicastSocket(const Address& local, uint32_t port);

// The parts of which these, and sockets of groups, are made.

template <typename Value>
bool Set(const Descriptor& socket, int level, int name, const Value& value) {
    return setsockopt(socket.Number(), level, name, &value, sizeof(value)) == 0;
}

// To as much as the system grants: with CAP_NET_ADMIN to 8 MiB, else to net.core.rmem_max.
// A socket with less is still a socket.
void EnlargeReceiveBuffer(const Descriptor& socket);

// Not blocking, with a large buffer, and for no group that only other sockets have joined.
Descriptor OpenReceiveSocket(const Address& address);

bool Bind(const Descriptor& socket, const Address& address);

// The interface that the addresses name, by a zone or by its own address. 0 = there is none.
uint32_t GroupInterface(const Address& local, const Address& group,
                        const InterfaceList& interfaces);

}  // namespace zaqsockets

#endif
