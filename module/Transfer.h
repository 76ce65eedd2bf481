// What Send and Receive have in common: moving all bytes through the channel's ring, piece by piece.
#ifndef MODULE_TRANSFER_H
#define MODULE_TRANSFER_H

#include <unistd.h>

#include "Channel.h"

// `move(ring, done, remaining)` moves what it can, up to `remaining` bytes, from or to the host's
// bytes at `done`, and returns their number. Waits in steps of 1 ms while that is none. Returns 1 when
// all bytes were moved, or there are none to move; 0 when the channel is or becomes cancelled, or has
// no ring.
template <typename Move>
uint32_t TransferAll(const Channel& channel, const void* data, uint32_t length, Move move) {
    constexpr useconds_t kWait_us = 1000;
    if (!channel)
        return 0;
    if (length == 0)
        return 1;
    if (data == nullptr || channel.Row->Cancel.load(std::memory_order_acquire) != 0)
        return 0;
    uint32_t done = 0;
    for (;;) {
        uint32_t moved;
        {
            const zaq::MutexLock lock(channel.Locks->State);
            CZAQSimpleBuffer* const ring = channel.Row->Buffer.load(std::memory_order_acquire);
            if (ring == nullptr)
                return 0;
            moved = move(*ring, done, length - done);
        }
        done += moved;
        if (moved == 0)
            usleep(kWait_us);
        // Completion is tested first: bytes that are all moved were moved, cancel or not.
        if (done == length)
            return 1;
        if (channel.Row->Cancel.load(std::memory_order_acquire) != 0)
            return 0;
    }
}

#endif
