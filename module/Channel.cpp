#include "Channel.h"

#include "Module.h"

// The load routine and the housekeeping thread use both before any static constructor has run.
constinit RtpChannelContextExt g_ContextExt[1][kDirections][kChannels];

namespace {

constinit ChannelInternals g_Internals[kDirections][kChannels];

Channel At(RtpContext& table, uint32_t direction, uint32_t number) {
    return {&table.Channels[direction][number], &g_ContextExt[0][direction][number],
            &g_Internals[direction][number], direction, number};
}

}  // namespace

Channel FindRecord(void* handle, uint32_t direction, uint32_t number) {
    if (handle == nullptr || direction >= kDirections || number >= kChannels)
        return {};
    return At(*static_cast<RtpContext*>(handle), direction, number);
}

Channel FindChannel(void* handle, uint32_t direction, uint32_t number) {
    // Relaxed: the field is set once, before the handle exists.
    if (handle == nullptr ||
        static_cast<RtpContext*>(handle)->Instance.load(std::memory_order_relaxed) != 0)
        return {};
    return FindRecord(handle, direction, number);
}

// A record says itself which channel it is; its place in the table says the same and cannot be
// overwritten by another process, which would lead this thread to the row of another channel.
Channel FindChannel(RtpChannelContext* record) {
    if (record == nullptr || g_pContext == nullptr)
        return {};
    const auto first = reinterpret_cast<uintptr_t>(g_pContext->Channels);
    const uintptr_t distance = reinterpret_cast<uintptr_t>(record) - first;
    if (distance >= sizeof(g_pContext->Channels))
        return {};
    const auto position = static_cast<uint32_t>(distance / sizeof(RtpChannelContext));
    return At(*g_pContext, position / kChannels, position % kChannels);
}
