// The housekeeping thread: measures every running channel once a second, and opens and replaces
// the sockets of receive channels.
#include <unistd.h>

#include "Channel.h"

namespace {

constexpr useconds_t kSleep_us = 100000;
constexpr uint32_t kSleepsPerPass = 10;

bool IsRunning(const Channel& channel) {
    return channel.Row->Running.load(std::memory_order_acquire) != 0;
}

void Measure(const Channel& channel) {
    const zaq::MutexLock lock(channel.Internals->State);
    CZAQStreamTimer* const timer = channel.Row->Timer.load(std::memory_order_acquire);
    if (timer != nullptr && IsRunning(channel))
        channel.Record->BitrateActual.store(timer->CalculateBitrate(), std::memory_order_relaxed);
}

void MaintainReceiveSocket(const Channel& channel) {
    const zaq::MutexLock lock(channel.Internals->Lifecycle);
    // The channel may have been ended while this thread waited for the lock.
    if (IsRunning(channel))
        RenewSocket(channel);  // a failure is tried again with the next pass
}

void Pass() {
    for (const uint32_t direction : {kSend, kReceive}) {
        for (uint32_t number = 0; number < kChannels; ++number) {
            const Channel channel = FindChannel(g_pContext, direction, number);
            if (!IsRunning(channel))
                continue;
            if (!channel.IsSend())
                MaintainReceiveSocket(channel);
            Measure(channel);
        }
    }
}

}  // namespace

void ThreadHouseKeep(void* /*argument*/) {
    for (uint32_t tick = 0; g_ThreadQuit.load(std::memory_order_acquire) == 0; ++tick) {
        if (tick % kSleepsPerPass == 0)
            Pass();
        usleep(kSleep_us);
    }
}
