// The thread that receives for all sockets: it waits for them with epoll, and takes what has
// arrived in batches. It starts with the first socket and ends with the last one.
//
// Nobody waits for it while it may be in a callback, except at unload or exit, since a callback may
// wait for anything: when the last socket is destroyed by a callback, the thread ends by itself.
//
// Thread safety: all functions may be called from any thread, also from a callback.
#ifndef SOCKETS_RECEIVELOOP_H
#define SOCKETS_RECEIVELOOP_H

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "Descriptor.h"
#include "Gathering.h"
#include "GroupSocket.h"
#include "ZAQSockets.h"

namespace zaqsockets {

class ReceiveLoop;
struct ReceiveSocket;

// What a handle points to.
struct UdpSocket {
    Descriptor File;
    void* const Context;
    ReceiveSocket* const Receiver;  // itself, or null for a send socket
};

// Made by its creator, then handed to the loop, which frees it.
struct ReceiveSocket : UdpSocket {
    // cppcheck-suppress uninitDerivedMemberVar ; the braces initialise all of them
    ReceiveSocket(void* context, ZAQReceiveCallback callback)
        : UdpSocket{Descriptor(), context, this}, Callback(callback) {}

    // Fixed after the creation.
    const ZAQReceiveCallback Callback;
    const pid_t Process = getpid();
    std::shared_ptr<Group> Joined;  // a group socket's
    ReceiveLoop* Loop = nullptr;

    std::atomic<bool> Closed{false};  // set once; no callback begins after it
    // Held by the loop while it serves the socket. The destroyer sets Closed and then locks once:
    // the loop has then left, and comes back only to find Closed. So nobody is starved.
    std::mutex Busy;

    Gathering::Share Share;             // the loop's thread's own
    ReceiveSocket* NextDead = nullptr;  // guarded by g_Lock
};

// Hands the socket over to the receive thread. False, with the socket untouched, when there are no
// means for it; or std::bad_alloc is thrown. EndUnusedThreads has to follow then.
bool AttachSocket(ReceiveSocket& socket);

// Takes the socket back, closes and frees it. No callback runs for it after the return; the one
// that runs is waited for, unless this is called from it.
void DetachSocket(ReceiveSocket* socket);

// Ends the threads when they have nothing to do, and waits for them; only when `all` is set also
// for a receive thread that may still be in a callback.
void EndUnusedThreads(bool all);

// With g_Lock held: lets another file take the place of a socket's, under the same number.
bool ExchangeFile(ReceiveSocket& socket, const Descriptor& file);

}  // namespace zaqsockets

#endif
