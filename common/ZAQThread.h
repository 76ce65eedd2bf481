// Runs one routine on a thread of its own.
#ifndef COMMON_ZAQTHREAD_H
#define COMMON_ZAQTHREAD_H

#include <pthread.h>
#include <sys/types.h>

#include "Export.h"

// The wrapper has no stop signal: the routine ends by its own means, and the owner waits for that.
//
// Thread safety: one owner at a time. The started thread touches only Routine and Argument, which
// are set before it exists. In a child of fork() the thread is not there; closing or destroying the
// object then forgets it without waiting. The host's signals are blocked in it.
class ZAQ_EXPORT CZAQThread {
  public:
    CZAQThread() noexcept;
    // Starts at once. A start that failed shows only in `ThreadId`, which is then 0.
    CZAQThread(void (*routine)(void*), void* argument, int priority) noexcept;
    CZAQThread(const CZAQThread&) = delete;
    CZAQThread& operator=(const CZAQThread&) = delete;

    // The order of the virtual functions is part of the binary interface.
    // Calls function(this) on the calling thread and returns its result; `code` is not used.
    virtual int SynchronizeExecute(int code, int (*function)(void*));
    virtual ~CZAQThread();  // waits for the routine to return
    // 1 started; 0 when one is already started or the system refuses.
    virtual int StartThread(void (*routine)(void*), void* argument, int priority);
    virtual void CloseWithWait();  // waits without limit
    // The same: the wait has no limit, whatever is asked for.
    virtual void CloseWithWait(unsigned int milliseconds);
    virtual void CloseWithoutWait();  // lets the thread run on; it must not use the object

    pthread_t ThreadId;  // 0 = none
    void (*Routine)(void*);
    void* Argument;
    pid_t ProcessId;  // the process in which the thread was started

  private:
    static void* ThreadRoutine(void* thread);
};

#endif
