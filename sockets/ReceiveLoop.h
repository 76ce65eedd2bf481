// The threads that receive for all sockets.
#ifndef SOCKETS_RECEIVELOOP_H
#define SOCKETS_RECEIVELOOP_H

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "Address.h"
#include "Descriptor.h"
#include "InterfaceWatch.h"
#include "ReceiveBatch.h"
#include "ZAQSockets.h"

namespace zaqsockets {

class ReceiveLoop;

// What a group socket was made from; empty for others. As text, since a zone's name may come to mean
// another interface.
struct GroupSource {
    char Local[Address::kTextBytes] = {};
    char Group[Address::kTextBytes] = {};
    uint32_t Port = 0;
    bool Everywhere = false;
};

// A socket that receives. Made by the creator, then handed to a loop, which frees it.
struct ReceiveSocket {
    // Fixed after the creation.
    void* Handle = nullptr;
    ZAQReceiveCallback Callback = nullptr;
    const pid_t Process = getpid();

    GroupSource Source;

    // Closed by the destroyer, when the loop is done with it. The loop may put another one in its
    // place before that, under the lock of all loops.
    Descriptor File;
    std::atomic<bool> Closed{false};  // set once; no callback begins after it
    // Held by the loop while it serves the socket. The destroyer sets Closed and then locks once:
    // the loop has then left, and comes back only to find Closed. So nobody is starved.
    std::mutex Busy;
    // Messages since its loop began to look at what fills it. Of the loop's thread; another one takes
    // over under the lock of all loops.
    std::atomic<uint32_t> Taken{0};
    // Its membership was lost and made anew a moment ago, when maybe not all routes were there: so it
    // still goes where the routes go. Of the loop's thread, as Taken.
    bool Renewed = false;

    // Guarded by the lock of all loops.
    ReceiveLoop* Loop = nullptr;
    ReceiveSocket* Next = nullptr;  // in the loop's list of those it serves, then of the dead
};

// One thread that waits for its sockets with epoll and takes what has arrived in batches.
//
// The first loop comes into being with the first socket and serves all of them. A loop that has more
// to do than one processor can hands half of it, or less, to another one, a new one if there are
// processors for it; loops with little to do are joined again.
//
// Thread safety: Attach and Detach may be called from any thread, also from a callback. A loop
// goes with its last socket. No loop is waited for while it may be in a callback, except at unload or
// exit, since a callback may wait for anything: a loop whose last socket was destroyed by a callback, or
// given away, ends by itself, and the next call of Attach or Detach, or another loop, collects it.
class ReceiveLoop {
  public:
    // Hands the socket over. False, with the socket untouched, when there are no means for it.
    static bool Attach(ReceiveSocket& socket);

    // Takes the socket back, closes and frees it. No callback runs for it after the return; the one
    // that runs is waited for, unless this is called from it.
    static void Detach(ReceiveSocket* socket);

    // Ends the loops that serve no socket, and waits for them; only when `all` is set also for one that
    // may still be in a callback.
    static void StopUnused(bool all);

    // Waits for loops that ended by themselves.
    static void Collect();

  private:
    class Load;

    ReceiveLoop();
    static ReceiveLoop* Start();
    static ReceiveLoop* LeastBusy(const ReceiveLoop* butNot);
    static void Tidy();
    static bool IsLoopThread();
    static void* Run(void* loop);

    static void JoinAll(ReceiveLoop* list);
    void Join();
    void Wake() const;
    bool Add(ReceiveSocket& socket);
    void Remove(ReceiveSocket& socket);
    void MoveTo(ReceiveLoop& other, uint64_t messages);
    void Adapt(Load& load);
    void ResetTaken();
    int Timeout_ms() const;
    uint32_t Busy_percent() const;
    void ShareLoad();
    void JoinQuietLoops();
    bool LeaveIfUnused();
    void LeaveGroups(uint32_t interface);
    void RenewMemberships();
    bool RenewMembership(ReceiveSocket& socket);
    void FreeDead();
    int Serve(ReceiveSocket& socket);
    bool IsOwnThread() const { return pthread_equal(m_Thread, pthread_self()) != 0; }

    // Fixed after the start.
    pthread_t m_Thread{};
    pid_t m_Process;
    Descriptor m_Epoll;
    Descriptor m_Wakeup;
    std::unique_ptr<ReceiveBatch> m_Batch;

    // The thread's own.
    InterfaceWatch m_Interfaces;

    // Share of a processor that the thread took lately, and when it last said so; written by it, read
    // by all who choose a loop.
    std::atomic<uint32_t> m_Busy_percent{0};
    std::atomic<int64_t> m_Seen_ms;

    // Guarded by the lock of all loops (ReceiveLoop.cpp).
    ReceiveSocket* m_Sockets = nullptr;  // list
    uint32_t m_SocketCount = 0;
    bool m_Stop = false;
    bool m_MustLook = false;          // after its interfaces: sockets have come
    bool m_InCallback = false;        // in one that has destroyed a socket, maybe the last
    ReceiveSocket* m_Dead = nullptr;  // list
    ReceiveLoop* m_Next = nullptr;    // in the list of those in service, then of the ended
};

}  // namespace zaqsockets

#endif
