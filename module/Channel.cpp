#include "Channel.h"

// The load routine and the housekeeping thread use both before any static constructor has run.
constinit RtpChannelContextExt g_ContextExt[1][kDirections][kChannels];
static constinit ChannelInternals g_Internals[kDirections][kChannels];

Channel FindChannel(void* handle, uint32_t direction, uint32_t number) {
    if (handle == nullptr || direction >= kDirections || number >= kChannels)
        return {};
    return {&static_cast<RtpContext*>(handle)->Channels[direction][number],
            &g_ContextExt[0][direction][number], &g_Internals[direction][number], direction};
}

// A record says itself which channel it is; its place in the table says the same and cannot be
// overwritten by another process, which would lead this thread to the row of another channel.
Channel FindChannel(RtpChannelContext* record) {
    const uintptr_t place =
        (reinterpret_cast<uintptr_t>(record) - reinterpret_cast<uintptr_t>(g_pContext->Channels)) /
        sizeof(RtpChannelContext);
    if (place >= uintptr_t{kDirections} * kChannels)
        return {};  // as for null
    const auto number = static_cast<uint32_t>(place);
    return FindChannel(g_pContext, number / kChannels, number % kChannels);
}
