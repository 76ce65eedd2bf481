#include "ChannelSocket.h"

#include <cstring>

#include "ZAQSockets.h"

namespace {

// Do both describe the same socket? Rtp is not part of it: the intake rewrites it as it goes.
bool SameSocket(const RtpChannelConfig& a, RtpChannelConfig b) {
    b.Rtp = a.Rtp;
    return memcmp(&a, &b, sizeof(a)) == 0;
}

// Clears Reopen after a socket was made from `used`. A configuration that was stored meanwhile must
// not lose its request. Its writer, maybe in another process, stores the record first and sets
// Reopen second, with release: either the exchange finds that 1, and with its acquire the record is
// seen to differ, or the 1 comes after the exchange and stays.
void ConfirmSocket(const Channel& channel, const RtpChannelConfig& used) {
    const zaq::MutexLock lock(channel.Internals->State);
    channel.Record->Reopen.exchange(0, std::memory_order_acq_rel);
    RtpChannelConfig now;
    LoadConfig(*channel.Record, now);
    if (!SameSocket(now, used))
        channel.Record->Reopen.store(1, std::memory_order_release);
}

}  // namespace

// Byte by byte with relaxed atomics, so that a concurrent writer is no undefined behaviour: that
// takes half a microsecond, a few times in a channel's life. The order against Reopen comes from
// that flag's own release and acquire.
void LoadConfig(RtpChannelContext& record, RtpChannelConfig& config) {
    auto* const from = reinterpret_cast<unsigned char*>(&record.Config);
    auto* const to = reinterpret_cast<unsigned char*>(&config);
    for (size_t byte = 0; byte < sizeof(config); ++byte) {
        // cppcheck-suppress objectIndex ; all are bytes of the one record
        to[byte] = std::atomic_ref(from[byte]).load(std::memory_order_relaxed);
    }
}

void StoreConfig(RtpChannelContext& record, const RtpChannelConfig& config) {
    const auto* const from = reinterpret_cast<const unsigned char*>(&config);
    auto* const to = reinterpret_cast<unsigned char*>(&record.Config);
    for (size_t byte = 0; byte < sizeof(config); ++byte) {
        // cppcheck-suppress objectIndex ; all are bytes of the one record
        std::atomic_ref(to[byte]).store(from[byte], std::memory_order_relaxed);
    }
}

bool IsTerminated(const char (&address)[QXV_RTP_ADDRESS_SIZE]) {
    return memchr(address, '\0', sizeof(address)) != nullptr;
}

bool RenewSocket(const Channel& channel) {
    // Acquire of Reopen pairs with the release after a new configuration was stored.
    if (channel.Row->Socket.load(std::memory_order_acquire) != nullptr &&
        channel.Record->Reopen.load(std::memory_order_acquire) == 0)
        return true;
    CloseSocket(channel);
    // The socket library gets a copy: it reads strings up to their NUL, and those in the table may
    // change meanwhile, or have none.
    RtpChannelConfig config;
    {
        const zaq::MutexLock lock(channel.Internals->State);
        LoadConfig(*channel.Record, config);
    }
    if (!IsTerminated(config.LocalAddress) || !IsTerminated(config.RemoteAddress))
        return false;
    const bool send = channel.IsSend();
    void* const socket =
        ZAQUDPSocket_Create(config.LocalAddress, config.RemoteAddress, config.Port, config.Port,
                            config.Multicast, send ? 1 : 0, config.MulticastOption, config.Ttl,
                            send ? nullptr : &RxProcess, send ? nullptr : channel.Record);
    channel.Row->Socket.store(socket, std::memory_order_release);
    if (socket == nullptr)
        return false;
    Add(channel.Internals->Counters.SocketsOpened, 1u);
    ConfirmSocket(channel, config);
    return true;
}

void CloseSocket(const Channel& channel) {
    void* const socket = channel.Row->Socket.load(std::memory_order_acquire);
    if (socket != nullptr)
        ZAQUDPSocket_Destroy(socket);
    channel.Row->Socket.store(nullptr, std::memory_order_release);
}
