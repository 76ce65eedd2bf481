// The thread that looks after the memberships of all group sockets.
//
// It listens to rtnetlink(7) and renews memberships, so that the receive thread never waits for the
// kernel's lock of all networking. The kernel keeps a membership by the interface's number, and an
// interface that is deleted and made again has another one.
//
// It exists while there are group sockets in its network namespace, that of the first one; sockets
// of other ones are left alone. Where the system refuses rtnetlink it does not exist.
#ifndef SOCKETS_GROUPWATCH_H
#define SOCKETS_GROUPWATCH_H

#include <memory>

#include "GroupSocket.h"

namespace zaqsockets {

// With g_Lock held. False, with nothing changed, when there are no means for it.
bool WatchGroup(const std::shared_ptr<Group>& group, ReceiveSocket& socket);
// With g_Lock held. The socket is not touched any more.
void UnwatchGroup(Group& group);
// Without g_Lock: ends the thread when there is no group left.
void EndUnusedWatch();
// With g_Lock held, in a child of fork(), which does not have the thread.
void ForgetWatch();

}  // namespace zaqsockets

#endif
