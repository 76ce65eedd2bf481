// Starting, draining and ending receive channels. Their sockets are opened by housekeeping.
#include <unistd.h>

#include <algorithm>

#include "Channel.h"
#include "QXV_RTP.h"

namespace {

constexpr uint32_t kRingSize = 0x400000;
constexpr useconds_t kEmptyRingWait_us = 1000;

// Frees what the channel has. A datagram that arrives before the socket is closed finds no objects.
void Release(const Channel& channel) ZAQ_REQUIRES(channel.Locks->Lifecycle) {
    JoinThread(channel);
    FreeObjects(channel);
    ClearStatus(*channel.Record);
    CloseSocket(channel);
}

// Reads what is there, up to `length` bytes. False when the channel has no ring.
bool ReadSome(const Channel& channel, uint8_t* data, uint32_t length, uint32_t& read) {
    const zaq::MutexLock lock(channel.Locks->State);
    CZAQSimpleBuffer* const buffer = channel.Row->Buffer.load(std::memory_order_acquire);
    if (buffer == nullptr)
        return false;
    read = std::min(buffer->GetDataSize(), length);
    if (read != 0)
        buffer->Read(data, read);
    return true;
}

}  // namespace

uint32_t QXV_RTP_ReceiveStart(void* handle, uint32_t channel) {
    const Channel found = FindChannel(handle, kReceive, channel);
    if (!found)
        return 0;
    const zaq::MutexLock lifecycle(found.Locks->Lifecycle);
    Release(found);  // what a wrong host left by starting twice; mostly nothing

    InitStatus(*found.Record, 0, kRingSize);
    found.Row->Cancel.store(0);
    found.Row->Socket.store(nullptr, std::memory_order_release);
    MakeObjects(found, kRingSize);
    SetRunning(found);  // last of all, since housekeeping goes by it
    return 1;
}

uint32_t QXV_RTP_Receive(void* handle, uint32_t channel, uint8_t* data, uint32_t length) {
    const Channel found = FindChannel(handle, kReceive, channel);
    if (!found)
        return 0;
    if (length == 0)
        return 1;
    if (data == nullptr || found.Row->Cancel.load(std::memory_order_acquire) != 0)
        return 0;
    uint32_t remaining = length;
    uint32_t copied = 0;
    for (;;) {
        uint32_t read = 0;
        if (!ReadSome(found, data + copied, remaining, read))
            return 0;
        remaining -= read;
        copied += read;
        if (read == 0)
            usleep(kEmptyRingWait_us);
        // Completion is tested first: bytes that are all there are delivered, cancel or not.
        if (remaining == 0)
            return 1;
        if (found.Row->Cancel.load(std::memory_order_acquire) != 0)
            return 0;
    }
}

uint32_t QXV_RTP_ReceiveCancel(void* handle, uint32_t channel) {
    const Channel found = FindChannel(handle, kReceive, channel);
    if (!found)
        return 0;
    CancelChannel(found);
    return 1;
}

uint32_t QXV_RTP_ReceiveEnd(void* handle, uint32_t channel) {
    const Channel found = FindChannel(handle, kReceive, channel);
    if (!found)
        return 0;
    CancelChannel(found);  // at once, so that a Receive that waits lets go
    const zaq::MutexLock lifecycle(found.Locks->Lifecycle);
    CancelChannel(found);  // again: a start that held the lock has undone it
    Release(found);
    return 1;
}
