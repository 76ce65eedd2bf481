// A channel's configuration, and the socket that is made from it.
#include <cstring>

#include "Channel.h"
#include "ZAQSockets.h"

namespace {

constexpr uint32_t kFamilyIPv6 = 10;

// Does the address field have a NUL? A field without one is never read as text.
bool IsTerminated(const char (&address)[QXV_RTP_ADDRESS_SIZE]) {
    return memchr(address, '\0', sizeof(address)) != nullptr;
}

// Family of an address field, 0 when it holds no address.
uint32_t ParseAddress(const char (&field)[QXV_RTP_ADDRESS_SIZE], int32_t& multicast) {
    if (!IsTerminated(field))
        return 0;
    return ZAQSocketsExtractIPAddress(field, nullptr, nullptr, nullptr, &multicast);
}

// Family of both addresses, 0 when the configuration is refused.
uint32_t ValidFamily(const RtpChannelConfig& config) {
    int32_t multicast = 0;
    const uint32_t local = ParseAddress(config.LocalAddress, multicast);
    // The parser accepts the DSCP that a remote address may have, but no socket opens with it here.
    if (local == 0 || multicast != 0 || strchr(config.LocalAddress, '?') != nullptr)
        return 0;
    const uint32_t remote = ParseAddress(config.RemoteAddress, multicast);
    // The socket library answers 0 or 1; anything else would say nothing.
    const bool agrees = (multicast & ~1) != 0 || (multicast == 1) == (config.Multicast == 1);
    return remote == local && agrees ? local : 0;
}

void Normalise(RtpChannelConfig& config, uint32_t direction, uint32_t family) {
    if (direction == kSend) {
        config.MulticastOption = 0;
    } else if (config.Multicast == 0) {
        if (family == kFamilyIPv6)
            strcpy(config.RemoteAddress, "0:0:0:0:0:0:0:0");
        else
            strcpy(config.RemoteAddress, "0.0.0.0");
        config.MulticastOption = 0;
    }
}

// Copies the configuration while other threads and processes may be writing it. A torn copy is
// possible across processes; its writer sets Reopen afterwards, and the socket is then made again.
//
// Byte by byte with relaxed atomics, so that a concurrent writer is no undefined behaviour: that
// takes half a microsecond, a few times in a channel's life. The order against Reopen comes from
// that flag's own release and acquire.
RtpChannelConfig LoadConfig(const Channel& channel) {
    RtpChannelConfig config{};
    auto* const from = reinterpret_cast<unsigned char*>(&channel.Record->Config);
    auto* const to = reinterpret_cast<unsigned char*>(&config);
    const zaq::MutexLock lock(channel.Internals->State);
    for (size_t byte = 0; byte < sizeof(config); ++byte) {
        // cppcheck-suppress objectIndex ; all are bytes of the one record
        to[byte] = std::atomic_ref(from[byte]).load(std::memory_order_relaxed);
    }
    return config;
}

void StoreConfig(const Channel& channel, const RtpChannelConfig& config) {
    const auto* const from = reinterpret_cast<const unsigned char*>(&config);
    auto* const to = reinterpret_cast<unsigned char*>(&channel.Record->Config);
    const zaq::MutexLock lock(channel.Internals->State);
    for (size_t byte = 0; byte < sizeof(config); ++byte) {
        // cppcheck-suppress objectIndex ; all are bytes of the one record
        std::atomic_ref(to[byte]).store(from[byte], std::memory_order_relaxed);
    }
    // Release: whoever sees the flag sees the record.
    channel.Record->Reopen.store(1, std::memory_order_release);
}

// Clears Reopen after a socket was made from `used`. A configuration that was stored meanwhile must
// not lose its request. Its writer, maybe in another process, stores the record first and sets
// Reopen second, with release: either the exchange finds that 1, and with its acquire the record is
// seen to differ, or the 1 comes after the exchange and stays.
void ConfirmSocket(const Channel& channel, const RtpChannelConfig& used) {
    channel.Record->Reopen.exchange(0, std::memory_order_acq_rel);
    RtpChannelConfig now = LoadConfig(channel);
    now.Rtp = used.Rtp;  // which is not part of the socket; the intake rewrites it as it goes
    if (memcmp(&now, &used, sizeof(now)) != 0)
        channel.Record->Reopen.store(1, std::memory_order_release);
}

}  // namespace

uint32_t QXV_RTP_GetConfig(void* handle, uint32_t direction, uint32_t channel,
                           RtpChannelConfig* config) {
    const Channel found = FindChannel(handle, direction, channel);
    if (!found || config == nullptr)
        return 0;
    // The host's memory is written without the lock: its page may be long in coming.
    const RtpChannelConfig copy = LoadConfig(found);
    *config = copy;
    return 1;
}

uint32_t QXV_RTP_SetConfig(void* handle, uint32_t direction, uint32_t channel,
                           RtpChannelConfig* config) {
    const Channel found = FindChannel(handle, direction, channel);
    if (!found || config == nullptr)
        return 0;
    const zaq::NoCancellation noCancellation;
    RtpChannelConfig copy = *config;  // as above
    const uint32_t family = ValidFamily(copy);
    if (family == 0)
        return 0;
    Normalise(copy, direction, family);
    // Where there is nothing to change, it may be memory that cannot be written.
    if (memcmp(config, &copy, sizeof(copy)) != 0)
        *config = copy;
    StoreConfig(found, copy);
    return 1;
}

bool RenewSocket(const Channel& channel) {
    // Acquire of Reopen pairs with the release after a new configuration was stored.
    if (channel.Row->Socket.load(std::memory_order_acquire) != nullptr &&
        channel.Record->Reopen.load(std::memory_order_acquire) == 0)
        return true;
    CloseSocket(channel);
    // The socket library gets a copy: it reads strings up to their NUL, and those in the table may
    // change meanwhile, or have none.
    const RtpChannelConfig config = LoadConfig(channel);
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
    Add(channel.Internals->Counters.SocketsOpened, 1);
    ConfirmSocket(channel, config);
    return true;
}

void CloseSocket(const Channel& channel) {
    void* const socket = channel.Row->Socket.load(std::memory_order_acquire);
    if (socket != nullptr)
        ZAQUDPSocket_Destroy(socket);
    channel.Row->Socket.store(nullptr, std::memory_order_release);
}
