#include "TestClock.h"

#include <sys/time.h>
#include <unistd.h>

#include <ctime>

extern "C" int gettimeofday(timeval* now, void* /*zone*/) noexcept {
    int64_t now_us = testclock::Now_us;
    if (now_us < 0) {
        timespec real{};
        clock_gettime(CLOCK_REALTIME, &real);
        now_us = real.tv_sec * 1000000 + real.tv_nsec / 1000;
    }
    *now = {now_us / 1000000, now_us % 1000000};
    return 0;
}

extern "C" int usleep(useconds_t duration_us) {
    using namespace testclock;
    ++(duration_us == 1000 ? Polls : duration_us == 100000 ? Ticks : Retries);
    const timespec real{0, (duration_us >= 100000 ? duration_us / 20 : duration_us) * 1000};
    return clock_nanosleep(CLOCK_MONOTONIC, 0, &real, nullptr);
}

bool testclock::Until(const std::function<bool()>& condition) {
    for (int tries = 0; !condition(); ++tries) {
        if (tries == 10000)
            return false;
        const timespec pause{0, 1000000};
        clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
    }
    return true;
}
