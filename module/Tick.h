// The 1 ms sleep of all threads that poll: transmit threads, and the host's in Send and Receive.
#ifndef MODULE_TICK_H
#define MODULE_TICK_H

#include <sys/time.h>
#include <unistd.h>

inline constexpr useconds_t kTick_us = 1000;

// Sleeps for a millisecond or, mostly, a little less: until the next one of the wall clock begins,
// in which the stream timer counts. With a tick of that clock, and only then, a datagram can become
// due; sleeps of 1 ms and a bit, one after the other, would drift through the tick, and a datagram
// would wait up to 1 ms for the tick and then as long for the thread. And all threads of the
// machine that sleep like this wake up together, by one timer interrupt.
//
// A thread that had to wait for others must not be due before them next time: its timer would then
// be programmed anew, and theirs, too. So an eighth of the lateness stays.
inline void SleepToTick() {
    timeval now{};
    gettimeofday(&now, nullptr);
    const auto late = static_cast<useconds_t>(now.tv_usec) % kTick_us;
    usleep(kTick_us - late + late / 8);
}

#endif
