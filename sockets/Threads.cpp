#include "Threads.h"

#include <signal.h>

namespace zaqsockets {

std::mutex g_Lock;

bool StartThread(pthread_t& thread, void* (*run)(void*), void* argument) {
    // The thread inherits the mask: the host's signal handlers run on the host's threads. Signals
    // that a thread brings on itself stay open: blocked, they would end the process past any
    // handler.
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

}  // namespace zaqsockets
