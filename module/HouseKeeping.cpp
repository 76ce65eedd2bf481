// The housekeeping thread: measures every running channel once a second, and opens and replaces
// the sockets of receive channels.
#include <unistd.h>

#include "Channel.h"
#include "Module.h"

namespace {

constexpr useconds_t kTick_us = 100000;
constexpr uint32_t kTicksPerPass = 10;

bool IsRunning(const Channel& channel) {
    return channel.Row->Running.load(std::memory_order_acquire) != 0;
}

void Measure(const Channel& channel) {
    const zaq::MutexLock lock(channel.Locks->State);
    CZAQStreamTimer* const timer = channel.Row->Timer.load(std::memory_order_acquire);
    if (timer != nullptr && IsRunning(channel))
        channel.Record->BitrateActual.store(timer->CalculateBitrate(), std::memory_order_relaxed);
}

void MaintainReceiveSocket(const Channel& channel) {
    const zaq::MutexLock lock(channel.Locks->Lifecycle);
    // Looked at again: the channel may have been ended while this thread waited.
    if (!IsRunning(channel))
        return;
    const bool open = channel.Row->Socket.load(std::memory_order_acquire) != nullptr;
    // Acquire pairs with the release after a new configuration was stored.
    if (open && channel.Record->Reopen.load(std::memory_order_acquire) == 0)
        return;
    CloseSocket(channel);
    OpenSocket(channel);  // a failure is tried again with the next pass
}

void Pass() {
    for (uint32_t channel = 0; channel < kChannels; ++channel) {
        const Channel send = FindChannel(&g_pContext->Channels[kSend][channel]);
        if (IsRunning(send))
            Measure(send);
    }
    for (uint32_t channel = 0; channel < kChannels; ++channel) {
        const Channel receive = FindChannel(&g_pContext->Channels[kReceive][channel]);
        if (IsRunning(receive)) {
            MaintainReceiveSocket(receive);
            Measure(receive);
        }
    }
}

bool MustQuit() {
    return g_ThreadQuit.load(std::memory_order_acquire) != 0;
}

}  // namespace

void ThreadHouseKeep(void* /*argument*/) {
    if (MustQuit())
        return;
    for (uint32_t tick = 0;; ++tick) {
        if (tick % kTicksPerPass == 0)
            Pass();
        usleep(kTick_us);
        if (MustQuit())
            return;
    }
}
