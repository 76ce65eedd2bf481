// The thread that receives for all sockets.
#ifndef SOCKETS_RECEIVELOOP_H
#define SOCKETS_RECEIVELOOP_H

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "Descriptor.h"
#include "Gathering.h"
#include "GroupSocket.h"
#include "ReceiveBatch.h"
#include "ZAQSockets.h"

namespace zaqsockets {

class ReceiveLoop;

struct ReceiveSocket;

// What a handle points to.
struct UdpSocket {
    UdpSocket(Descriptor file, void* context, ReceiveSocket* receiver = nullptr)
        : Context(context), Receiver(receiver), File(std::move(file)) {}

    void* const Context;
    ReceiveSocket* const Receiver;  // itself, or null for a send socket
    Descriptor File;
};

// Made by its creator, then handed to the loop, which frees it.
struct ReceiveSocket : UdpSocket {
    ReceiveSocket(Descriptor file, void* context, ZAQReceiveCallback callback);

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

// One thread that waits for all receive sockets with epoll, and takes what has arrived in batches.
// It starts with the first socket and ends with the last one.
//
// Nobody waits for it while it may be in a callback, except at unload or exit, since a callback may
// wait for anything: when the last socket is destroyed by a callback, the thread ends by itself
// after that.
//
// Thread safety: the public functions may be called from any thread, also from a callback.
class ReceiveLoop {
  public:
    // Hands the socket over. False, with the socket untouched, when there are no means for it.
    static bool Attach(ReceiveSocket& socket);

    // Takes the socket back, closes and frees it. No callback runs for it after the return; the one
    // that runs is waited for, unless this is called from it.
    static void Detach(ReceiveSocket* socket);

    // Lets another file take the place of a socket's, under the same number. With g_Lock held,
    // which keeps the socket attached.
    static bool Exchange(ReceiveSocket& socket, const Descriptor& file);

    // Ends the thread when it serves no socket, and waits for it; only when `all` is set also for
    // one that may still be in a callback.
    static void EndIfUnused(bool all);

  private:
    ReceiveLoop();
    ~ReceiveLoop();
    friend std::default_delete<ReceiveLoop>;
    static bool TryAttach(ReceiveSocket& socket);
    static bool Start();
    static void* Run(void* loop);
    void Run();
    bool Register(ReceiveSocket& socket) const;
    void Wake() const;
    bool IsOver();
    int Serve(ReceiveSocket& socket);
    bool IsOwnThread() const { return pthread_equal(m_Thread, pthread_self()) != 0; }

    // Fixed after the start.
    pthread_t m_Thread{};
    Descriptor m_Epoll;
    Descriptor m_Wakeup;
    std::unique_ptr<ReceiveBatch> m_Batch;

    // The thread's own.
    Gathering m_Gathering;

    // Guarded by g_Lock.
    uint32_t m_SocketCount = 0;
    bool m_Stop = false;              // somebody waits for the thread
    bool m_InCallback = false;        // in one that has destroyed a socket, maybe the last
    ReceiveSocket* m_Dead = nullptr;  // list of those destroyed; there may still be events for them
};

}  // namespace zaqsockets

#endif
