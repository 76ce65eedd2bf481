// What a host may know of its channels without a look inside.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "Channel.h"

static_assert(sizeof(QXV_RTP_Statistics) == 64);
static_assert(offsetof(QXV_RTP_Statistics, BufferedBytes) == 16);
static_assert(offsetof(QXV_RTP_Statistics, Datagrams) == 32);
static_assert(offsetof(QXV_RTP_Statistics, SendFailures) == 56);

namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;  // numbers for display

// The number of bytes in the ring. The thread that uses the host's side knows its own number, and
// the network's side counts after it has moved the ring's position: so the thread is never promised
// more bytes, or more room, than it finds. Other threads may see either number first, and a start
// that sets both back.
uint32_t BufferedBytes(const ChannelCounters& counters, bool send, uint32_t most) {
    const uint64_t host = counters.HostBytes.load(std::memory_order_acquire);
    const uint64_t network = counters.NetworkBytes.load(std::memory_order_acquire);
    const auto bytes = static_cast<int64_t>(send ? host - network : network - host);
    return static_cast<uint32_t>(std::clamp<int64_t>(bytes, 0, most));
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
    // Cancel may be 0 in a channel that was never started, or whose start has thrown.
    now.Cancelled = now.Started == 0 || found.Row->Cancel.load(kRelaxed) != 0 ? 1 : 0;
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
