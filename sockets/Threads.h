// What all threads of the library, and all that enter it, have in common.
#ifndef SOCKETS_THREADS_H
#define SOCKETS_THREADS_H

#include <pthread.h>
#include <signal.h>

#include <mutex>

namespace zaqsockets {

// Guards which threads the library has, and which sockets they serve. It is held for moments only:
// never while a callback runs, a thread is joined, or a system call changes memberships. It is
// constant-initialised and trivially destroyed, so that a thread may use it while the process
// exits. A receive socket's Busy may be held when it is taken, never the other way round.
inline constinit std::mutex g_Lock;

// Starts a thread of the library. False when the system refuses it.
inline bool StartThread(pthread_t& thread, void* (*run)(void*), void* argument) {
    // The thread inherits the mask: the host's signal handlers run on the host's threads. A signal
    // that a thread brings on itself would, if it were blocked, end the process past any handler.
    sigset_t blocked;
    sigset_t previous;
    sigfillset(&blocked);
    for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS})
        sigdelset(&blocked, own);
    pthread_sigmask(SIG_SETMASK, &blocked, &previous);
    const bool started = pthread_create(&thread, nullptr, run, argument) == 0;
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return started;
}

// As long as it exists, a pending pthread_cancel() of the calling thread has to wait. Otherwise a
// system call would unwind the stack from within code that does not expect it.
class CancellationOff {
  public:
    CancellationOff() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_Previous); }
    ~CancellationOff() { pthread_setcancelstate(m_Previous, nullptr); }
    CancellationOff(const CancellationOff&) = delete;
    CancellationOff& operator=(const CancellationOff&) = delete;

  private:
    int m_Previous = PTHREAD_CANCEL_ENABLE;
};

}  // namespace zaqsockets

#endif
