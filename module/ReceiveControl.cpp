// Starting, draining and ending receive channels. Their sockets are opened by housekeeping.
#include <algorithm>

#include "Channel.h"
#include "QXV_RTP.h"
#include "Transfer.h"

namespace {

constexpr uint32_t kRingSize = 0x400000;

// Frees what the channel has. A datagram that arrives before the socket is closed finds no objects.
void Release(const Channel& channel) ZAQ_REQUIRES(channel.Locks->Lifecycle) {
    JoinThread(channel);
    FreeObjects(channel);
    ClearStatus(*channel.Record);
    CloseSocket(channel);
}

}  // namespace

uint32_t QXV_RTP_ReceiveStart(void* handle, uint32_t channel) {
    const Channel found = FindChannel(handle, kReceive, channel);
    if (!found)
        return 0;
    LibraryReference library = LibraryReference::ToThis();
    const zaq::MutexLock lifecycle(found.Locks->Lifecycle);
    Release(found);  // what a wrong host left by starting twice; mostly nothing

    InitStatus(*found.Record, 0, kRingSize);
    found.Row->Cancel.store(0);
    found.Row->Socket.store(nullptr, std::memory_order_release);
    MakeObjects(found, kRingSize);
    SetRunning(found);  // last of all, since housekeeping goes by it
    library.Exchange(found);
    return 1;
}

uint32_t QXV_RTP_Receive(void* handle, uint32_t channel, uint8_t* data, uint32_t length) {
    const auto read = [data](CZAQSimpleBuffer& ring, uint32_t done, uint32_t remaining) {
        const uint32_t count = std::min(ring.GetDataSize(), remaining);
        if (count != 0)
            ring.Read(data + done, count);
        return count;
    };
    return TransferAll(FindChannel(handle, kReceive, channel), data, length, read);
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
    LibraryReference none;
    const zaq::MutexLock lifecycle(found.Locks->Lifecycle);
    CancelChannel(found);  // again: a start that held the lock has undone it
    Release(found);
    none.Exchange(found);
    return 1;
}
