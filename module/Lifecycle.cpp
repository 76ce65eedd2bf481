// Starting, cancelling and ending channels, and the bitrates of started ones.
#include <memory>
#include <new>

#include "Channel.h"

namespace {

constexpr uint32_t kReceiveRingSize = 0x400000;

// Four stores meet when a cancel and a start run at the same time: Cancel 1, Running 0 here, and
// Cancel 0, Running 1 there. Each side looks once more at Cancel after its last store, and both see
// one order of all accesses (sequential consistency): the cancel that finds its 1 gone has been
// overtaken by a start, and repeats; the start that finds a 1 was cancelled, and clears Running.
uint32_t Cancel(const Channel& channel) {
    if (!channel)
        return 0;
    channel.Internals->Cancels.fetch_add(1);
    do {
        channel.Row->Cancel.store(1);
        channel.Row->Running.store(0);
    } while (channel.Row->Cancel.load() == 0);
    return 1;
}

void ResetCounters(ChannelCounters& counters) {
    for (auto* const counter : {&counters.HostBytes, &counters.NetworkBytes, &counters.Datagrams,
                                &counters.Bytes, &counters.Dropped, &counters.SendFailures,
                                &counters.ModeChanges, &counters.SocketsOpened})
        counter->store(0, std::memory_order_relaxed);
}

// Puts both objects, or null, into the row and frees the earlier ones. This protects their users:
//   Send, Receive            are RingUsers; the last one frees a ring that was taken out
//   SetBitrate, measurement  hold `State`
//   transmit thread          has been joined before
//   intake                   holds `Intake`
void ReplaceObjects(const Channel& channel, CZAQStreamTimer* timer, CZAQSimpleBuffer* ring) {
    ChannelCounters& counters = channel.Internals->Counters;
    {
        const zaq::MutexLock state(channel.Internals->State);
        const zaq::MutexLock intake(channel.Internals->Intake);
        if (ring != nullptr)
            ResetCounters(counters);
        counters.Capacity.store(ring != nullptr ? ring->GetBufferSize() : 0,
                                std::memory_order_relaxed);
        // Release: whoever finds the pointer, with acquire, finds the object complete.
        timer = channel.Row->Timer.exchange(timer, std::memory_order_acq_rel);
        ring = channel.Row->Buffer.exchange(ring, std::memory_order_acq_rel);
        if (channel.Internals->IsUsed(ring))
            ring = nullptr;
    }
    delete ring;
    delete timer;
}

// Waits for the thread in the row, if there is one. Something must have told it to end.
void JoinThread(const Channel& channel) {
    delete channel.Row->Thread.load(std::memory_order_acquire);
    channel.Row->Thread.store(nullptr, std::memory_order_release);
}

// Sets the numbers of a channel that starts, or to 0 those of one that ends, and requests a socket.
void SetNumbers(RtpChannelContext& record, uint32_t bitrate, uint32_t bufferSize) {
    record.Bitrate.store(bitrate, std::memory_order_relaxed);  // for display, in no order
    record.BitrateActual.store(0, std::memory_order_relaxed);
    record.BufferSize.store(bufferSize, std::memory_order_relaxed);
    record.Reopen.store(1, std::memory_order_release);
}

uint32_t Start(const Channel& channel, uint32_t bitrate, uint32_t bufferSize) {
    const zaq::NoCancellation noCancellation;
    const zaq::MutexLock lifecycle(channel.Internals->Lifecycle);
    // What is left where a host starts twice. A transmit thread closes its socket as it ends.
    channel.Internals->StopThread.store(true, std::memory_order_release);
    JoinThread(channel);
    channel.Internals->StopThread.store(false, std::memory_order_relaxed);  // no thread to see it
    CloseSocket(channel);

    SetNumbers(*channel.Record, bitrate, bufferSize);
    channel.Row->Cancel.store(0);
    CZAQThread* thread = nullptr;
    try {
        // The earlier objects stay meanwhile, so that a transfer that waits always finds a ring.
        auto timer = std::make_unique<CZAQStreamTimer>();
        auto* const ring = new CZAQSimpleBuffer(bufferSize);
        ReplaceObjects(channel, timer.release(), ring);
        if (channel.IsSend()) {
            // The thread runs from here on and finds timer and ring in place.
            thread = new CZAQThread(&ThreadTx, channel.Record, 0);
            channel.Row->Thread.store(thread, std::memory_order_release);
        }
    } catch (const std::bad_alloc&) {
        // The channel has no objects then, as after its end.
        channel.Row->Running.store(0);
        ReplaceObjects(channel, nullptr, nullptr);
        throw;
    }
    channel.Row->Running.store(1);  // last of all, since housekeeping goes by it
    if (channel.Row->Cancel.load() != 0)
        channel.Row->Running.store(0);  // see Cancel
    // Where the system refuses a thread, the channel is as if its thread had given up at once:
    // nobody would take what a Send stores, and it would wait for ever.
    if (thread != nullptr && thread->ThreadId == 0)
        channel.Row->Cancel.store(1, std::memory_order_release);
    return 1;
}

uint32_t End(const Channel& channel) {
    const zaq::NoCancellation noCancellation;
    if (Cancel(channel) == 0)  // at once, so that a transfer that waits lets go
        return 0;
    const zaq::MutexLock lifecycle(channel.Internals->Lifecycle);
    Cancel(channel);  // again: a start that held the lock has undone it
    JoinThread(channel);
    // A datagram that arrives before the socket is closed finds no objects.
    ReplaceObjects(channel, nullptr, nullptr);
    SetNumbers(*channel.Record, 0, 0);
    CloseSocket(channel);
    return 1;
}

}  // namespace

uint32_t QXV_RTP_SendStart(void* handle, uint32_t channel, uint32_t bitrate, uint32_t bufferUnits) {
    const Channel found = FindChannel(handle, kSend, channel);
    if (!found || bitrate == 0 || bufferUnits == 0)
        return 0;
    return Start(found, bitrate, bufferUnits * QXV_RTP_BUFFER_UNIT);
}

uint32_t QXV_RTP_ReceiveStart(void* handle, uint32_t channel) {
    const Channel found = FindChannel(handle, kReceive, channel);
    return found ? Start(found, 0, kReceiveRingSize) : 0;
}

uint32_t QXV_RTP_SendEnd(void* handle, uint32_t channel) {
    return End(FindChannel(handle, kSend, channel));
}

uint32_t QXV_RTP_ReceiveEnd(void* handle, uint32_t channel) {
    return End(FindChannel(handle, kReceive, channel));
}

uint32_t QXV_RTP_SendCancel(void* handle, uint32_t channel) {
    return Cancel(FindChannel(handle, kSend, channel));
}

uint32_t QXV_RTP_ReceiveCancel(void* handle, uint32_t channel) {
    return Cancel(FindChannel(handle, kReceive, channel));
}

uint32_t QXV_RTP_Cancel(void* handle) {
    uint32_t done = 1;
    for (uint32_t channel = 0; channel < kChannels; ++channel) {
        done &= QXV_RTP_SendCancel(handle, channel);
        done &= QXV_RTP_ReceiveCancel(handle, channel);
    }
    return done;
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
    if (timer->TxInitialize(timer->GetBlockSize(), bitrate) != 0)
        ++found.Internals->Schedule;
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
