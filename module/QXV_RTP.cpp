// The handle, and what the module tells of itself.
#include "QXV_RTP.h"

#include "Module.h"

namespace {

constexpr uint16_t kCapabilities = QXV_RTP_CAN_SEND | QXV_RTP_CAN_RECEIVE | QXV_RTP_CAN_RTP |
                                   QXV_RTP_CAN_RAW | QXV_RTP_CAN_MULTICAST | QXV_RTP_CAN_IPV6;
constexpr uint32_t kMaximumBufferPackets = 16384;

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
