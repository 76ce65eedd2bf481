// Starting, feeding, re-pacing and ending send channels.
#include <algorithm>

#include "Channel.h"
#include "Module.h"
#include "QXV_RTP.h"
#include "Transfer.h"

namespace {

constexpr int kUnitShift = 8;
static_assert(1u << kUnitShift == QXV_RTP_BUFFER_UNIT);

// Stops the channel's thread, which closes its socket as it ends, and frees the channel's objects.
void Release(const Channel& channel) ZAQ_REQUIRES(channel.Locks->Lifecycle) {
    JoinThread(channel);
    FreeObjects(channel);
    channel.Row->Socket.store(nullptr, std::memory_order_release);
}

// What a wrong host left by starting twice. The old thread ends only when it sees Cancel.
void ReleaseEarlierStart(const Channel& channel) ZAQ_REQUIRES(channel.Locks->Lifecycle) {
    if (channel.Row->Thread.load(std::memory_order_acquire) != nullptr)
        CancelChannel(channel);
    Release(channel);
}

}  // namespace

uint32_t QXV_RTP_SendStart(void* handle, uint32_t channel, uint32_t bitrate, uint32_t bufferUnits) {
    const Channel found = FindChannel(handle, kSend, channel);
    if (!found || bitrate == 0 || bufferUnits == 0)
        return 0;
    LibraryReference library = LibraryReference::ToThis();
    const zaq::MutexLock lifecycle(found.Locks->Lifecycle);
    ReleaseEarlierStart(found);

    const uint32_t bufferSize = bufferUnits << kUnitShift;
    InitStatus(*found.Record, bitrate, bufferSize);
    found.Row->Cancel.store(0);
    found.Row->Socket.store(nullptr, std::memory_order_release);
    MakeObjects(found, bufferSize);
    // The thread runs from here on and finds timer and buffer in place.
    auto* const thread = new CZAQThread(&ThreadTx, found.Record, 0);
    found.Row->Thread.store(thread, std::memory_order_release);
    SetRunning(found);
    // Where the system refuses a thread, the channel is as if its thread had given up at once: nobody
    // would take what a Send stores, and it would wait for ever.
    if (thread->ThreadId == 0)
        found.Row->Cancel.store(1, std::memory_order_release);
    library.Exchange(found);
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
    CancelChannel(found);  // at once, so that a Send that waits lets go
    LibraryReference none;
    const zaq::MutexLock lifecycle(found.Locks->Lifecycle);
    CancelChannel(found);  // again: a start that held the lock has undone it
    Release(found);
    ClearStatus(*found.Record);
    none.Exchange(found);
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
    const zaq::MutexLock lock(found.Locks->State);
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
    RtpChannelContext* const record = FindRecord(handle, kReceive, channel);
    if (record == nullptr || bitrate == nullptr)
        return 0;
    *bitrate = record->BitrateActual.load(std::memory_order_relaxed);  // a number for display
    return 1;
}
