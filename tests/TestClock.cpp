#include "TestClock.h"

#include <sys/time.h>
#include <unistd.h>

#include <ctime>

extern "C" int gettimeofday(timeval* now, void* /*zone*/) noexcept {
    timespec real{};
    clock_gettime(CLOCK_REALTIME, &real);
    const int64_t set_us = testclock::Now_us;
    *now = set_us < 0 ? timeval{real.tv_sec, real.tv_nsec / 1000}
                      : timeval{set_us / 1000000, set_us % 1000000};
    return 0;
}

extern "C" int usleep(useconds_t duration_us) {
    using namespace testclock;
    ++(duration_us <= 1000 ? Polls : duration_us == 100000 ? Ticks : Retries);
    const timespec real{0, (duration_us >= 100000 ? duration_us / 20 : duration_us) * 1000};
    return clock_nanosleep(CLOCK_MONOTONIC, 0, &real, nullptr);
}

bool testclock::Until(const std::function<bool()>& condition) {
    const timespec pause{0, 1000000};
    bool met = false;
    for (int tries = 0; !(met = condition()) && tries < 10000; ++tries)
        clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
    return met;
}
