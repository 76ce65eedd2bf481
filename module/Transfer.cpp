// Send and Receive: the host's bytes go through the channel's ring, piece by piece.
#include <algorithm>
#include <optional>

#include "Channel.h"
#include "Tick.h"

namespace {

// Moves as many bytes as it can, up to `count`, and returns their number; none when the channel has
// no ring. Where the ring is taken out of the row meanwhile, its last user frees it.
std::optional<uint32_t> MovePiece(const Channel& channel, uint8_t* data, uint32_t count) {
    ChannelInternals& internals = *channel.Internals;
    RingUser user;
    {
        const zaq::MutexLock lock(internals.State);
        user = {channel.Row->Buffer.load(std::memory_order_acquire), internals.Users};
        if (user.Ring == nullptr)
            return std::nullopt;
        internals.Users = &user;
    }
    CZAQSimpleBuffer& ring = *user.Ring;
    const bool send = channel.IsSend();
    const uint32_t moved = std::min(send ? ring.GetFreeSize() : ring.GetDataSize(), count);
    if (send && moved != 0)
        ring.Write(data, moved);
    else if (moved != 0)
        ring.Read(data, moved);
    {
        const zaq::MutexLock lock(internals.State);
        RingUser** link = &internals.Users;
        while (*link != &user)
            link = &(*link)->Next;
        *link = user.Next;
        if (user.Ring == channel.Row->Buffer.load(std::memory_order_acquire)) {
            Add(internals.Counters.HostBytes, moved);
            return moved;
        }
        if (internals.IsUsed(user.Ring))
            return moved;
    }
    delete user.Ring;
    return moved;
}

uint32_t Transfer(const Channel& channel, uint8_t* data, uint32_t length) {
    if (!channel)
        return 0;
    if (length == 0)
        return 1;
    const uint32_t cancels = channel.Internals->Cancels.load(std::memory_order_acquire);
    const auto isCancelled = [&] {
        return channel.Row->Cancel.load(std::memory_order_acquire) != 0 ||
               channel.Internals->Cancels.load(std::memory_order_acquire) != cancels;
    };
    if (data == nullptr || isCancelled())
        return 0;
    for (uint32_t done = 0;;) {
        const std::optional<uint32_t> moved = MovePiece(channel, data + done, length - done);
        if (!moved)
            return 0;
        done += *moved;
        if (*moved == 0)
            SleepToTick();
        // Completion is tested first: bytes that are all moved were moved, cancel or not.
        if (done == length)
            return 1;
        if (isCancelled())
            return 0;
    }
}

}  // namespace

uint32_t QXV_RTP_Send(void* handle, uint32_t channel, const uint8_t* data, uint32_t length) {
    return Transfer(FindChannel(handle, kSend, channel), const_cast<uint8_t*>(data), length);
}

uint32_t QXV_RTP_Receive(void* handle, uint32_t channel, uint8_t* data, uint32_t length) {
    return Transfer(FindChannel(handle, kReceive, channel), data, length);
}
