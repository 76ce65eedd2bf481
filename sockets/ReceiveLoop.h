// The thread that receives for all sockets.
#ifndef SOCKETS_RECEIVELOOP_H
#define SOCKETS_RECEIVELOOP_H

#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "Descriptor.h"
#include "ZAQSockets.h"

namespace zaqsockets {

class ReceiveLoop;

// A socket that receives. Made by the creator, then handed to a loop, which frees it.
struct ReceiveSocket {
    // Fixed after the creation.
    void* Handle = nullptr;
    ZAQReceiveCallback Callback = nullptr;
    ReceiveLoop* Loop = nullptr;

    Descriptor File;                  // closed by the destroyer, when the loop is done with it
    std::atomic<bool> Closed{false};  // set once; no callback begins after it
    // Held by the loop while it serves the socket. The destroyer sets Closed and then locks once:
    // the loop has then left, and comes back only to find Closed. So nobody is starved.
    std::mutex Busy;
    ReceiveSocket* NextDead = nullptr;  // in the loop's list
};

// One thread that waits for all sockets with epoll and takes what has arrived in batches.
//
// Thread safety: Attach and Detach may be called from any thread, also from a callback. A loop
// comes into being with the first socket and goes with the last. If the last one is destroyed by a
// callback, the thread cannot be waited for there: it ends by itself, and the next call of Attach
// or Detach, or the unloading of the library, collects it.
class ReceiveLoop {
  public:
    // Hands the socket over. False, with the socket untouched, when there are no means for it.
    static bool Attach(ReceiveSocket& socket);

    // Takes the socket back, closes and frees it. No callback runs for it after the return; the one
    // that runs is waited for, unless this is called from it.
    static void Detach(ReceiveSocket* socket);

    // Ends the loop, if it serves no socket, and waits for it.
    static void StopUnused();

    // Waits for loops that ended by themselves.
    static void Collect();

  private:
    struct Batch;
    class Load;

    ReceiveLoop();
    static ReceiveLoop* Start();
    static void* Run(void* loop);

    void Join();
    void Wake() const;
    bool LeaveIfUnused();
    void FreeDead();
    int Serve(ReceiveSocket& socket);
    void Deliver(ReceiveSocket& socket, int count);
    bool IsOwnThread() const { return pthread_equal(m_Thread, pthread_self()) != 0; }

    // Fixed after the start.
    pthread_t m_Thread{};
    pid_t m_Process;
    Descriptor m_Epoll;
    Descriptor m_Wakeup;
    std::unique_ptr<Batch> m_Batch;

    // Guarded by the lock of all loops (ReceiveLoop.cpp).
    uint32_t m_Sockets = 0;
    bool m_Stop = false;
    ReceiveSocket* m_Dead = nullptr;
    ReceiveLoop* m_NextEnded = nullptr;
};

}  // namespace zaqsockets

#endif
