// Starting, draining and ending receive channels. Housekeeping opens their sockets.
#include <algorithm>

#include "ChannelObjects.h"
#include "ChannelSocket.h"
#include "QXV_RTP.h"
#include "Transfer.h"

namespace {

constexpr uint32_t kRingSize = 0x400000;

}  // namespace

uint32_t QXV_RTP_ReceiveStart(void* handle, uint32_t channel) {
    const Channel found = FindChannel(handle, kReceive, channel);
    if (!found)
        return 0;
    const zaq::NoCancellation noCancellation;
    const zaq::MutexLock lifecycle(found.Internals->Lifecycle);
    // What a host left that starts twice; mostly nothing.
    JoinThread(found);
    CloseSocket(found);

    InitStatus(*found.Record, 0, kRingSize);
    found.Row->Cancel.store(0);
    StartGuard guard(found);
    MakeObjects(found, kRingSize);
    SetRunning(found);  // last of all, since housekeeping goes by it
    guard.Complete();
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
    const zaq::NoCancellation noCancellation;
    CancelChannel(found);  // at once, so that a Receive that waits lets go
    const zaq::MutexLock lifecycle(found.Internals->Lifecycle);
    CancelChannel(found);  // again: a start that held the lock has undone it
    JoinThread(found);
    FreeObjects(found);  // a datagram that arrives before the socket is closed finds no objects
    InitStatus(*found.Record, 0, 0);
    CloseSocket(found);
    return 1;
}
