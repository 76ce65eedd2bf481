// The handle, and what the module tells of itself and of its channels.
#include <algorithm>

#include "Channel.h"

static_assert(sizeof(QXV_RTP_Statistics) == 64);
static_assert(offsetof(QXV_RTP_Statistics, BufferedBytes) == 16);
static_assert(offsetof(QXV_RTP_Statistics, Datagrams) == 32);
static_assert(offsetof(QXV_RTP_Statistics, SendFailures) == 56);

namespace {

constexpr uint16_t kCapabilities = QXV_RTP_CAN_SEND | QXV_RTP_CAN_RECEIVE | QXV_RTP_CAN_RTP |
                                   QXV_RTP_CAN_RAW | QXV_RTP_CAN_MULTICAST | QXV_RTP_CAN_IPV6;
constexpr uint32_t kMaximumBufferPackets = 16384;
constexpr auto kRelaxed = std::memory_order_relaxed;  // numbers for display

// The number of bytes in the ring. The thread that uses the host's side knows its own number, and
// the network's side counts after it has moved the ring's position: so the thread is never promised
// more bytes, or more room, than it finds. Others may see either number first, or a start's zeros.
uint32_t BufferedBytes(const ChannelCounters& counters, bool send, uint32_t most) {
    const uint64_t host = counters.HostBytes.load(std::memory_order_acquire);
    const uint64_t network = counters.NetworkBytes.load(std::memory_order_acquire);
    const auto bytes = static_cast<int64_t>(send ? host - network : network - host);
    return static_cast<uint32_t>(std::clamp<int64_t>(bytes, 0, most));
}

}  // namespace

uint32_t QXV_RTP_GetMaximumBufferPackets(void) {
    return kMaximumBufferPackets;
}

uint32_t QXV_RTP_GetInputChannelCount(void) {
    return g_RxChannelCount;
}

uint32_t QXV_RTP_GetOutputChannelCount(void) {
    return g_TxChannelCount;
}

void* QXV_RTP_Create(int32_t index) {
    if (index != 0 || g_pContext == nullptr)
        return nullptr;
    // Relaxed: set once at load, and the count of handles guards nothing.
    if (g_pContext->TxChannelCount.load(std::memory_order_relaxed) == 0 &&
        g_pContext->RxChannelCount.load(std::memory_order_relaxed) == 0)
        return nullptr;
    g_pContext->HandleCount.fetch_add(1, std::memory_order_relaxed);
    return g_pContext;
}

void QXV_RTP_Destroy(void* handle) {
    if (handle != nullptr)
        static_cast<RtpContext*>(handle)->HandleCount.fetch_sub(1, std::memory_order_relaxed);
}

uint32_t QXV_RTP_Start(void* handle) {
    return handle != nullptr ? 1 : 0;
}

uint32_t QXV_RTP_End(void* handle) {
    return handle != nullptr ? 1 : 0;
}

uint32_t QXV_RTP_GetDeviceInfo(void* handle, uint8_t* zero, uint8_t* one, uint8_t* capabilityLow,
                               uint8_t* capabilityHigh) {
    if (handle == nullptr)
        return 0;
    if (zero != nullptr)
        *zero = 0;
    if (one != nullptr)
        *one = 1;
    if (capabilityLow != nullptr)
        *capabilityLow = kCapabilities & 0xFF;
    if (capabilityHigh != nullptr)
        *capabilityHigh = kCapabilities >> 8;
    return 1;
}

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
    now.SocketsOpened = static_cast<uint32_t>(counters.SocketsOpened.load(kRelaxed));
    now.ModeChanges = static_cast<uint32_t>(counters.ModeChanges.load(kRelaxed));
    now.Datagrams = counters.Datagrams.load(kRelaxed);
    now.Bytes = counters.Bytes.load(kRelaxed);
    now.DatagramsDropped = counters.Dropped.load(kRelaxed);
    now.SendFailures = counters.SendFailures.load(kRelaxed);
    *statistics = now;
    return 1;
}
