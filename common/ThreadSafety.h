// A mutex that clang's thread-safety analysis understands, the annotations that go with it, and
// protection against the cancellation of threads.
//
// libstdc++'s std::mutex carries no capability attributes, so the analysis cannot follow it. The
// wrapper is constant-initialised and trivially destructible: it may stand in static storage and
// stays usable while the process's exit handlers run and other threads still work.
#ifndef COMMON_THREADSAFETY_H
#define COMMON_THREADSAFETY_H

#include <pthread.h>

#include <mutex>

#if defined(__clang__)
#define ZAQ_TSA(x) __attribute__((x))
#else
#define ZAQ_TSA(x)
#endif

#define ZAQ_CAPABILITY(x) ZAQ_TSA(capability(x))
#define ZAQ_SCOPED_CAPABILITY ZAQ_TSA(scoped_lockable)
#define ZAQ_GUARDED_BY(x) ZAQ_TSA(guarded_by(x))
#define ZAQ_ACQUIRED_BEFORE(...) ZAQ_TSA(acquired_before(__VA_ARGS__))
#define ZAQ_REQUIRES(...) ZAQ_TSA(requires_capability(__VA_ARGS__))
#define ZAQ_ACQUIRE(...) ZAQ_TSA(acquire_capability(__VA_ARGS__))
#define ZAQ_RELEASE(...) ZAQ_TSA(release_capability(__VA_ARGS__))

namespace zaq {

class ZAQ_CAPABILITY("mutex") Mutex {
  public:
    constexpr Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock() ZAQ_ACQUIRE() { m_Mutex.lock(); }
    void Unlock() ZAQ_RELEASE() { m_Mutex.unlock(); }

  private:
    std::mutex m_Mutex;
};

class ZAQ_SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ZAQ_ACQUIRE(mutex) : m_Mutex(mutex) { m_Mutex.Lock(); }
    ~MutexLock() ZAQ_RELEASE() { m_Mutex.Unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& m_Mutex;
};

// Puts off a pthread_cancel() for as long as the object lives. The C library ends a cancelled
// thread by unwinding its stack from within functions such as close() and pthread_join(), and a
// destructor that has called one of them would end the process.
class NoCancellation {
  public:
    NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_Previous); }
    ~NoCancellation() { pthread_setcancelstate(m_Previous, nullptr); }
    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

  private:
    int m_Previous = PTHREAD_CANCEL_ENABLE;
};

}  // namespace zaq

#endif
