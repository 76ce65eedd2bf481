// What a host may know of its channels without a look inside.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "Channel.h"
#include "QXV_RTP.h"

static_assert(sizeof(QXV_RTP_Statistics) == 64);
static_assert(offsetof(QXV_RTP_Statistics, BufferedBytes) == 16);
static_assert(offsetof(QXV_RTP_Statistics, Datagrams) == 32);
static_assert(offsetof(QXV_RTP_Statistics, SendFailures) == 56);

namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;  // as ChannelCounters says

// The number of bytes in the ring, of which no thread knows both positions at one moment: whoever
// stores may be ahead of what was read of it, or a start may set all numbers back.
uint32_t BufferedBytes(const ChannelCounters& counters, bool send, uint32_t most) {
    // What was taken is read first, so that it is never more than what was stored.
    const std::atomic<uint64_t>& taken = send ? counters.NetworkBytes : counters.HostBytes;
    const std::atomic<uint64_t>& stored = send ? counters.HostBytes : counters.NetworkBytes;
    // Acquire keeps the two loads in this order.
    const uint64_t takenBytes = taken.load(std::memory_order_acquire);
    const uint64_t storedBytes = stored.load(kRelaxed);
    return storedBytes < takenBytes
               ? 0
               : static_cast<uint32_t>(std::min<uint64_t>(storedBytes - takenBytes, most));
}

}  // namespace

uint32_t QXV_RTP_GetStatistics(void* handle, uint32_t direction, uint32_t channel,
                               QXV_RTP_Statistics* statistics) {
    const Channel found = FindChannel(handle, direction, channel);
    if (!found || statistics == nullptr || statistics->Size < sizeof(QXV_RTP_Statistics))
        return 0;
    const ChannelCounters& counters = found.Internals->Counters;
    const uint32_t capacity = counters.Capacity.load(kRelaxed);
    const uint32_t most = capacity > 0 ? capacity - 1 : 0;  // a ring keeps one byte free

    QXV_RTP_Statistics now{};
    now.Size = sizeof(now);
    now.Started = found.Row->Buffer.load(kRelaxed) != nullptr ? 1 : 0;
    now.Cancelled = found.Row->Cancel.load(kRelaxed) != 0 ? 1 : 0;
    now.SocketOpen = found.Row->Socket.load(kRelaxed) != nullptr ? 1 : 0;
    now.BufferedBytes = BufferedBytes(counters, found.IsSend(), most);
    now.FreeBytes = most - now.BufferedBytes;
    now.SocketsOpened = counters.SocketsOpened.load(kRelaxed);
    now.ModeChanges = counters.ModeChanges.load(kRelaxed);
    now.Datagrams = counters.Datagrams.load(kRelaxed);
    now.Bytes = counters.Bytes.load(kRelaxed);
    now.DatagramsDropped = counters.Dropped.load(kRelaxed);
    now.SendFailures = counters.SendFailures.load(kRelaxed);
    *statistics = now;
    return 1;
}
