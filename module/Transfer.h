// What Send and Receive have in common: all bytes go through the channel's ring, piece by piece.
#ifndef MODULE_TRANSFER_H
#define MODULE_TRANSFER_H

#include "ChannelObjects.h"
#include "Tick.h"

// `move(ring, done, remaining)` moves what it can, up to `remaining` bytes, from or to the host's
// bytes at `done`, and returns their number. While that is none, the thread sleeps for 1 ms and
// tries again. Returns 1 when all bytes were moved, or there are none to move; 0 when the channel
// is or becomes cancelled, or has no ring.
template <typename Move>
uint32_t TransferAll(const Channel& channel, const void* data, uint32_t length, Move move) {
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
    uint32_t done = 0;
    for (;;) {
        uint32_t moved;
        {
            RingUse use(channel);
            if (use.Ring() == nullptr)
                return 0;
            moved = move(*use.Ring(), done, length - done);
            use.Count(moved);
        }
        done += moved;
        if (moved == 0)
            SleepToTick();
        // Completion is tested first: bytes that are all moved were moved, cancel or not.
        if (done == length)
            return 1;
        if (isCancelled())
            return 0;
    }
}

#endif
