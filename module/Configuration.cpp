// Reading and writing a channel's configuration.
#include <cstring>

#include "ChannelSocket.h"
#include "ZAQSockets.h"

namespace {

constexpr uint32_t kFamilyIPv6 = 10;

// Family of an address field, 0 when it holds no address. The parser reads up to the NUL, so a
// field without one is not handed to it.
uint32_t ParseAddress(const char (&field)[QXV_RTP_ADDRESS_SIZE], int32_t& multicast) {
    if (!IsTerminated(field))
        return 0;
    return ZAQSocketsExtractIPAddress(field, nullptr, nullptr, nullptr, &multicast);
}

// Family of both addresses, 0 when the configuration is refused.
uint32_t ValidFamily(const RtpChannelConfig& config) {
    int32_t multicast = 0;
    const uint32_t local = ParseAddress(config.LocalAddress, multicast);
    if (local == 0 || multicast != 0)
        return 0;
    const uint32_t remote = ParseAddress(config.RemoteAddress, multicast);
    if (remote == 0)
        return 0;
    if (multicast == 1 && config.Multicast != 1)
        return 0;
    if (multicast == 0 && config.Multicast == 1)
        return 0;
    return local == remote ? local : 0;
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

}  // namespace

uint32_t QXV_RTP_GetConfig(void* handle, uint32_t direction, uint32_t channel,
                           RtpChannelConfig* config) {
    const Channel found = FindChannel(handle, direction, channel);
    if (!found || config == nullptr)
        return 0;
    // The host's memory is written without the lock: its page may be long in coming.
    RtpChannelConfig copy;
    {
        const zaq::MutexLock lock(found.Internals->State);
        LoadConfig(*found.Record, copy);
    }
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
    *config = copy;
    const zaq::MutexLock lock(found.Internals->State);
    StoreConfig(*found.Record, copy);
    // Release: whoever sees the flag sees the record.
    found.Record->Reopen.store(1, std::memory_order_release);
    return 1;
}
