// The intake of one datagram: finds out whether the channel carries RTP, and stores the payload.
#include "Channel.h"
#include "StreamFormat.h"
#include "ZAQSockets.h"

namespace {

// So many datagrams of the other form in a row switch the channel's mode.
constexpr uint32_t kSwitchAfter = 4;

struct Detection {
    uint8_t Rtp;  // 1 = RTP that carries a transport stream
    uint32_t HeaderSize;
};

// An extension header is not skipped (its datagrams count as raw), and padding is payload.
Detection Detect(CZAQStreamTimer& timer, unsigned char* data, uint32_t length) {
    if (length <= kRtpHeaderSize)
        return {0, 0};
    uint32_t version = 0;
    uint32_t payloadType = 0;
    const uint32_t header = timer.ExtractRTPHeader(data, &version, nullptr, nullptr, nullptr,
                                                   nullptr, &payloadType, nullptr, nullptr);
    // A CSRC list as long as the datagram or longer: no RTP, but the length is kept.
    if (length <= header)
        return {0, header};
    if (data[header] == kSyncByte && version == kRtpVersion && payloadType == kRtpPayloadTypeMp2t)
        return {1, header};
    return {0, 0};
}

// Switches the mode with a hysteresis and returns the one in force. The test is for equality: after
// a switch, one datagram of the mode in force must set the counter back before the next switch.
uint8_t UpdateMode(const Channel& channel, uint8_t detected) {
    RtpChannelContext& record = *channel.Record;
    // Relaxed: only this thread counts; other threads and processes just look.
    const std::atomic_ref mode(record.Config.Rtp);
    if (mode.load(std::memory_order_relaxed) == detected) {
        if (record.RtpSwitchCount.load(std::memory_order_relaxed) != 0)
            record.RtpSwitchCount.store(0, std::memory_order_relaxed);
        return detected;
    }
    const uint32_t count = record.RtpSwitchCount.load(std::memory_order_relaxed) + 1;
    record.RtpSwitchCount.store(count, std::memory_order_relaxed);
    if (count != kSwitchAfter)
        return mode.load(std::memory_order_relaxed);
    mode.store(detected, std::memory_order_relaxed);
    Add(channel.Internals->Counters.ModeChanges, 1);
    return detected;
}

}  // namespace

void RxProcess(void* socket, void* /*reserved*/, sockaddr* /*source*/, unsigned char* data,
               unsigned int length) {
    const Channel channel =
        FindChannel(static_cast<RtpChannelContext*>(ZAQUDPSocket_GetContext(socket)));
    if (!channel)
        return;
    // Nobody waits here but for an end of the channel.
    const zaq::MutexLock lock(channel.Internals->Intake);
    CZAQStreamTimer* const timer = channel.Row->Timer.load(std::memory_order_acquire);
    CZAQSimpleBuffer* const buffer = channel.Row->Buffer.load(std::memory_order_acquire);
    if (timer == nullptr || buffer == nullptr)
        return;

    const Detection detection = Detect(*timer, data, length);
    const uint32_t offset = UpdateMode(channel, detection.Rtp) == 1 ? detection.HeaderSize : 0;
    // Wraps to nearly 2^32, which the ring refuses, when the CSRC list is longer than the datagram.
    const uint32_t payload = length - offset;
    if (timer->GetBlockSize() != payload)
        timer->RxInitialize(payload);
    ChannelCounters& counters = channel.Internals->Counters;
    if (buffer->Write(data + offset, payload) != 0) {
        Add(counters.Datagrams, 1);
        Add(counters.Bytes, payload);
        Add(counters.NetworkBytes, payload);
    } else {
        Add(counters.Dropped, 1);
    }
    timer->IncreaseBlocksTransfered();  // counts what arrived, not what was stored
}
