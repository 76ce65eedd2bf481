// Starting, feeding, re-pacing and ending send channels.
#include <algorithm>

#include "ChannelObjects.h"
#include "Module.h"
#include "QXV_RTP.h"
#include "Transfer.h"

namespace {

constexpr int kUnitShift = 8;
static_assert(1u << kUnitShift == QXV_RTP_BUFFER_UNIT);

}  // namespace

uint32_t QXV_RTP_SendStart(void* handle, uint32_t channel, uint32_t bitrate, uint32_t bufferUnits) {
    const Channel found = FindChannel(handle, kSend, channel);
    if (!found || bitrate == 0 || bufferUnits == 0)
        return 0;
    const zaq::NoCancellation noCancellation;
    const zaq::MutexLock lifecycle(found.Internals->Lifecycle);
    // The thread of a host that starts twice. It closes its socket as it ends.
    found.Internals->StopThread.store(true, std::memory_order_release);
    JoinThread(found);
    found.Internals->StopThread.store(false, std::memory_order_relaxed);  // no thread to see it

    const uint32_t bufferSize = bufferUnits << kUnitShift;
    InitStatus(*found.Record, bitrate, bufferSize);
    found.Row->Cancel.store(0);
    found.Row->Socket.store(nullptr, std::memory_order_release);
    StartGuard guard(found);
    MakeObjects(found, bufferSize);
    // The thread runs from here on and finds timer and ring in place.
    auto* const thread = new CZAQThread(&ThreadTx, found.Record, 0);
    found.Row->Thread.store(thread, std::memory_order_release);
    SetRunning(found);
    guard.Complete();
    // Where the system refuses a thread, the channel is as if its thread had given up at once:
    // nobody would take what a Send stores, and it would wait for ever.
    if (thread->ThreadId == 0)
        found.Row->Cancel.store(1, std::memory_order_release);
    return 1;
}

uint32_t QXV_RTP_Send(void* handle, uint32_t channel, const uint8_t* data, uint32_t length) {
    const auto write = [data](CZAQSimpleBuffer& ring, uint32_t done, uint32_t remaining) {
        const uint32_t count = std::min(ring.GetFreeSize(), remaining);
        if (count != 0)
            ring.Write(const_cast<unsigned char*>(data) + done, count);
        return count;
    };
    return TransferAll(FindChannel(handle, kSend, channel), data, length, write);
}

uint32_t QXV_RTP_SendEnd(void* handle, uint32_t channel) {
    const Channel found = FindChannel(handle, kSend, channel);
    if (!found)
        return 0;
    const zaq::NoCancellation noCancellation;
    CancelChannel(found);  // at once, so that a Send that waits lets go
    const zaq::MutexLock lifecycle(found.Internals->Lifecycle);
    CancelChannel(found);  // again: a start that held the lock has undone it
    JoinThread(found);
    FreeObjects(found);
    found.Row->Socket.store(nullptr, std::memory_order_release);
    InitStatus(*found.Record, 0, 0);
    return 1;
}

uint32_t QXV_RTP_SendCancel(void* handle, uint32_t channel) {
    const Channel found = FindChannel(handle, kSend, channel);
    if (!found)
        return 0;
    CancelChannel(found);
    return 1;
}

uint32_t QXV_RTP_Cancel(void* handle) {
    // The first channel stands for all: what is refused for it is refused for every one.
    if (!FindChannel(handle, kSend, 0))
        return 0;
    for (uint32_t channel = 0; channel < kChannels; ++channel) {
        QXV_RTP_SendCancel(handle, channel);
        QXV_RTP_ReceiveCancel(handle, channel);
    }
    return 1;
}

uint32_t QXV_RTP_SetBitrate(void* handle, uint32_t channel, uint32_t bitrate) {
    const Channel found = FindChannel(handle, kSend, channel);
    if (!found)
        return 0;
    const zaq::MutexLock lock(found.Internals->State);
    CZAQStreamTimer* const timer = found.Row->Timer.load(std::memory_order_acquire);
    if (timer == nullptr)
        return 0;
    found.Record->Bitrate.store(bitrate, std::memory_order_relaxed);  // read at detection, if later
    // Refused, as it should be, while the block size is not known yet and for a bitrate of 0.
    timer->TxInitialize(timer->GetBlockSize(), bitrate);
    return 1;
}

uint32_t QXV_RTP_GetBitrate(void* handle, uint32_t channel, uint32_t* bitrate) {
    // The receive channel of that number, on purpose.
    const Channel found = FindChannel(handle, kReceive, channel);
    if (!found || bitrate == nullptr)
        return 0;
    *bitrate = found.Record->BitrateActual.load(std::memory_order_relaxed);  // a number for display
    return 1;
}
