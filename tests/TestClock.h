// Time for the code under test. The executable that links TestClock.cpp defines gettimeofday() and
// usleep() itself, and they take the C library's place for the module as well: the clock can be set
// by hand, and the sleeps are counted, the long ones shortened.
#ifndef TESTS_TESTCLOCK_H
#define TESTS_TESTCLOCK_H

#include <atomic>
#include <cstdint>
#include <functional>

namespace testclock {

// Constant-initialised: the module's threads run before this executable's constructors do.
inline constinit std::atomic<int64_t> Now_us{-1};   // stands still; negative: the real clock
inline constinit std::atomic<uint64_t> Polls{0};    // sleeps of up to 1 ms begun
inline constinit std::atomic<uint64_t> Ticks{0};    // of 100 ms, which last a twentieth
inline constinit std::atomic<uint64_t> Retries{0};  // of 1 s, which last a twentieth

// Polls until the condition holds; false when it does not within ten seconds.
bool Until(const std::function<bool()>& condition);

}  // namespace testclock

#endif
