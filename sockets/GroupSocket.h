// Sockets that receive from a group, and the interfaces on which they have joined it.
#ifndef SOCKETS_GROUPSOCKET_H
#define SOCKETS_GROUPSOCKET_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "Address.h"
#include "Descriptor.h"
#include "Interfaces.h"

namespace zaqsockets {

struct ReceiveSocket;

// What a group socket is made from, and where it has joined.
//
// Thread safety: it belongs to the thread that creates the socket, and from then on to the watch
// thread; but Socket is guarded by g_Lock, and IsDestroyed may be read by any thread.
struct Group {
    // Fixed after the creation. Addresses stay text: a zone may come to mean another interface.
    std::string Local;
    std::string Remote;
    uint32_t Port = 0;
    bool Everywhere = false;
    int Family() const {  // known also where the zone's name means nothing any more
        return Remote.find(':') == std::string::npos ? AF_INET : AF_INET6;
    }

    std::vector<uint32_t> Joined;  // interfaces; 0 stands for one that the system has chosen
    // The socket was replaced a moment ago, when maybe not all routes were there: so a group for
    // which no interface is named still moves to where the route leads.
    bool Follows = false;

    ReceiveSocket* Socket = nullptr;  // null before it is watched, and when it is destroyed
    std::atomic<bool> IsDestroyed{false};
};

// Bound to the group and its port, and joined on the interface of the local address, of the group's
// zone or of the system's choice, or on all that are up and can multicast; only for the source that
// the remote address may name. Empty, with nothing left open, when any step fails.
Descriptor OpenGroupSocket(Group& group, const InterfaceList& interfaces);

// Ends the membership on an interface that is gone, or has lost the group's family. It would still
// count to the limit. When the interface has its family again, or another one has its number, it
// would look like a good one; and if it ended then, the kernel would end another socket's with it.
void LeaveInterface(Group& group, const Descriptor& socket, uint32_t interface);
// Where that works; the group has left the interface just before.
void JoinInterface(Group& group, const Descriptor& socket, uint32_t interface);

// After interfaces have changed: joins on those that are new, and leaves those that are gone. Where
// the group is meant to be joined on one other interface, `renewed` becomes a socket that is. False
// when the group is joined nowhere, or that is not known, so that it has to be looked at again.
bool RenewMemberships(Group& group, const Descriptor& socket, const InterfaceList& interfaces,
                      Descriptor& renewed);

}  // namespace zaqsockets

#endif
