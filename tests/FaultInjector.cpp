#include "FaultInjector.h"

#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <new>

namespace {

constexpr long kThrow = 1;  // in place of a result

// clang-format off
// The function's symbol, what it returns when it fails, errno, and what it adds to what is held.
#define FALLIBLE(X) \
    X(unlink, -1, EACCES, 0)           X(open, -1, EMFILE, 0)        X(lseek, -1, EOVERFLOW, 0) \
    X(write, -1, ENOSPC, 0)            X(mmap, -1, ENOMEM, 1)        X(fstat, -1, ENOMEM, 0) \
    X(madvise, -1, EFAULT, 0)          X(eventfd_read, -1, EAGAIN, 0) \
    X(pthread_attr_init, ENOMEM, 0, 1)              X(pthread_attr_getschedparam, EINVAL, 0, 0) \
    X(pthread_attr_setschedparam, EINVAL, 0, 0)     X(pthread_attr_setsigmask_np, ENOMEM, 0, 0) \
    X(pthread_create, EAGAIN, 0, 0)                 X(pthread_setname_np, ERANGE, 0, 0) \
    X(socket, -1, EMFILE, 0)           X(setsockopt, -1, ENOBUFS, 0) X(bind, -1, EADDRINUSE, 0) \
    X(connect, -1, ENETUNREACH, 0)     X(send, -1, ENOBUFS, 0)       X(recvmmsg, -1, ENOMEM, 0) \
    X(getifaddrs, -1, ENOMEM, 1)       X(if_nametoindex, 0, ENODEV, 0) \
    X(getsockopt, -1, ENOBUFS, 0)      X(fcntl, -1, EMFILE, 0) \
    X(recv, -1, ENOMEM, 0)             X(poll, -1, EINTR, 0) \
    X(epoll_create1, -1, EMFILE, 0)    X(epoll_ctl, -1, ENOSPC, 0)   X(epoll_wait, -1, EINTR, 0) \
    X(eventfd, -1, EMFILE, 0)          X(_Znwm, kThrow, 0, 1)        X(_Znam, kThrow, 0, 1) \
    X(_ZnwmSt11align_val_t, kThrow, 0, 1)           X(_ZnwmRKSt9nothrow_t, 0, ENOMEM, 1)
// What gives back: operator delete in its forms, and others.
#define RELEASING(X) \
    X(_ZdlPv, 0, 0, -1)                X(_ZdlPvm, 0, 0, -1)          X(_ZdaPv, 0, 0, -1) \
    X(_ZdlPvSt11align_val_t, 0, 0, -1) X(_ZdlPvmSt11align_val_t, 0, 0, -1) \
    X(munmap, 0, 0, -1)                X(freeifaddrs, 0, 0, -1) \
    X(pthread_attr_destroy, 0, 0, -1)
// clang-format on

#define INDEX(name, result, error, held) k_##name,
#define NAME(name, result, error, held) #name,
#define SYMBOL(name, result, error, held) {#name, result, error, held},

enum Index { FALLIBLE(INDEX) RELEASING(INDEX) kFunctions };
constexpr struct {
    const char* Name;
    long Result;
    int Error, Held;
} kSymbols[] = {FALLIBLE(SYMBOL) RELEASING(SYMBOL)};

// All of them take at most six arguments that travel in integer registers, and return in one.
using Any = long (*)(long, long, long, long, long, long);

Any g_Real[kFunctions];
std::atomic<int> g_Uses[kFunctions], g_FailingUse, g_Held;
std::atomic<const char*> g_Function;
std::atomic<void (*)()> g_Before;

// Before there are threads: the look-up takes the loader's lock, and who unloads a library holds it
// while it waits for the library's threads.
__attribute__((constructor)) void FindReal() {
    for (size_t i = 0; i < kFunctions; ++i)
        g_Real[i] = reinterpret_cast<Any>(dlsym(RTLD_NEXT, kSymbols[i].Name));
}

// Takes no lock, for the same reason.
bool IsOfLibrary(void* address) {
    dl_find_object object;
    return _dl_find_object(address, &object) == 0 &&
           (strstr(object.dlfo_link_map->l_name, "/libQXV_RTP.so") != nullptr ||
            strstr(object.dlfo_link_map->l_name, "/libZAQSockets.so") != nullptr);
}

long Call(Index function, void* caller, long a, long b, long c, long d, long e, long f) {
    const auto& [name, result, error, held] = kSymbols[function];
    const bool counts = IsOfLibrary(caller);
    if (counts && ++g_Uses[function] == g_FailingUse && g_Function == name) {
        if (g_Before == nullptr && result == kThrow)
            throw std::bad_alloc();
        errno = error;
        if (g_Before == nullptr)
            return result;
        g_Before.load()();
    }
    if (g_Real[function] == nullptr)  // a constructor that runs before ours
        FindReal();
    const long real = g_Real[function](a, b, c, d, e, f);
    if (counts && (held < 0 || real != result))
        g_Held += held;
    return real;
}

size_t Find(const std::string& function) {
    return static_cast<size_t>(
        std::ranges::find(kSymbols, function, [](auto& s) { return s.Name; }) - kSymbols);
}

}  // namespace

#define DEFINE(name, result, error, held)                                                      \
    extern "C" long Any_##name(long a, long b, long c, long d, long e, long f) __asm__(#name); \
    extern "C" long Any_##name(long a, long b, long c, long d, long e, long f) {               \
        return Call(k_##name, __builtin_return_address(0), a, b, c, d, e, f);                  \
    }
FALLIBLE(DEFINE)
RELEASING(DEFINE)

std::vector<std::string> faults::Functions() {
    return {FALLIBLE(NAME)};
}

void faults::Arm(const std::string& function, int use, void (*before)()) {
    std::ranges::fill(g_Uses, 0);
    g_Function = kSymbols[Find(function)].Name;
    g_Before = before;
    g_FailingUse = use;
}

int faults::Uses(const std::string& function) {
    return g_Uses[Find(function)];
}

int faults::Held() {
    return g_Held;
}
