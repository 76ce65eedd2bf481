#include "ZAQThread.h"

#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <initializer_list>

CZAQThread::CZAQThread() noexcept
    : ThreadId(0), Routine(nullptr), Argument(nullptr), ProcessId(0) {}

CZAQThread::CZAQThread(void (*routine)(void*), void* argument, int priority) noexcept
    : CZAQThread() {
    CZAQThread::StartThread(routine, argument, priority);
}

CZAQThread::~CZAQThread() {
    CZAQThread::CloseWithWait();
}

int CZAQThread::SynchronizeExecute(int /*code*/, int (*function)(void*)) {
    return function(this);
}

int CZAQThread::StartThread(void (*routine)(void*), void* argument, int priority) {
    if (ThreadId != 0)
        return 0;
    Routine = routine;
    Argument = argument;
    ProcessId = getpid();

    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return 0;
    sched_param parameters{};
    int failed = pthread_attr_getschedparam(&attributes, &parameters);
    if (failed == 0) {
        parameters.sched_priority = priority;
        failed = pthread_attr_setschedparam(&attributes, &parameters);
    }
    // The host's signal handlers run on the host's threads, and interrupt no sleep of this one. A
    // signal that a thread causes itself would, if it were blocked, end the process at once.
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int caused : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS})
        sigdelset(&blocked, caused);
    if (failed == 0)
        failed = pthread_attr_setsigmask_np(&attributes, &blocked);
    if (failed == 0) {
        failed = pthread_create(&ThreadId, &attributes, &CZAQThread::ThreadRoutine, this);
        // POSIX leaves the identifier undefined when the thread could not be created.
        if (failed != 0)
            ThreadId = 0;
    }
    pthread_attr_destroy(&attributes);
    return failed == 0 ? 1 : 0;
}

void CZAQThread::CloseWithWait() {
    // After fork() the child has a copy of the object but not the thread, and the C library may
    // have recycled the thread's descriptor: neither join nor detach may touch it. The join
    // releases all that the thread held; the identifier may then belong to another thread.
    if (ThreadId != 0 && ProcessId == getpid())
        pthread_join(ThreadId, nullptr);
    ThreadId = 0;
}

void CZAQThread::CloseWithWait(unsigned int /*milliseconds*/) {
    CZAQThread::CloseWithWait();
}

void CZAQThread::CloseWithoutWait() {
    if (ThreadId != 0 && ProcessId == getpid())
        pthread_detach(ThreadId);
    ThreadId = 0;
}

void* CZAQThread::ThreadRoutine(void* thread) {
    const auto* const self = static_cast<CZAQThread*>(thread);
    self->Routine(self->Argument);
    return nullptr;
}
