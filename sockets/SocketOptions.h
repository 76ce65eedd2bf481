// Opens sockets: binding, group membership, buffers.
#ifndef SOCKETS_SOCKETOPTIONS_H
#define SOCKETS_SOCKETOPTIONS_H

#include "Address.h"
#include "Descriptor.h"

namespace zaqsockets {

// Each returns an empty descriptor, with nothing left open, when any step fails.

// Connected to `remote`, which carries the port; bound to `local` unless that is the any-address.
Descriptor OpenSendSocket(const Address& local, const Address& remote, int ttl);

// Bound to `group`, which carries the port, and joined on the interface of `local`, of the group's
// zone or of the system's choice; or, with `everywhere`, on all that are up and can multicast.
Descriptor OpenGroupSocket(const Address& local, const Address& group, bool everywhere);

// What has become of a group socket when interfaces have come, gone or changed.
enum class Membership {
    Good,    // what was missing `everywhere` has been joined
    Full,    // it can not join more; memberships on interfaces that are gone count, too
    Broken,  // it is not joined where it is meant to be
};
// With `anywhere`, a socket of the system's choice is good where it is joined on any interface: another
// choice, now that another interface has the route, is no reason to leave a stream that comes in.
Membership RenewMembership(const Descriptor& socket, const Address& local, const Address& group,
                           bool everywhere, bool anywhere);

// Ends the membership of a group socket on one interface, which may be gone.
void LeaveGroup(const Descriptor& socket, uint32_t interface);

// On interfaces that exist: all that the other one has, and more?
bool HasMoreMemberships(const Descriptor& socket, const Descriptor& other, const Address& group);

// Bound to `local`, which carries the port.
Descriptor OpenUnicastSocket(const Address& local);

}  // namespace zaqsockets

#endif
