#include "ZAQTickValue.h"

#include <sys/time.h>

CZAQTickValue::~CZAQTickValue() = default;

uint64_t CZAQTickValue::GetTickValue() {
    constexpr uint64_t kLow32 = 0xFFFFFFFFu;
    constexpr uint64_t kHalf = 0x80000000u;

    timeval now{};
    gettimeofday(&now, nullptr);
    const auto milliseconds = static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000u +
                                                    static_cast<uint64_t>(now.tv_usec) / 1000u);
    uint64_t candidate = (LastValue & ~kLow32) + milliseconds;
    // More than half a period backwards is the 32-bit count's wrap, not a clock that was set back.
    if (LastValue > candidate + kHalf)
        candidate += kLow32 + 1;
    LastValue = candidate;
    return candidate;
}
