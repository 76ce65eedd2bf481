// The shared table: configuration, state and measured bitrate of every channel, the contents of the
// file that each loading process makes and other processes may watch.
#ifndef MODULE_RTPCONTEXT_H
#define MODULE_RTPCONTEXT_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "QXV_RTP.h"
#include "QXV_RTP_table.h"

inline constexpr uint32_t kSend = QXV_RTP_SEND;
inline constexpr uint32_t kReceive = QXV_RTP_RECEIVE;
inline constexpr uint32_t kDirections = 2;
inline constexpr uint32_t kChannels = QXV_RTP_CHANNELS;

// One channel, as QXV_RTP_table.h draws it for other processes. Threads and processes share the
// numbers; a lock-free atomic has the size and the address-free access of the plain number.
struct RtpChannelContext {
    std::atomic<uint32_t> Instance;
    std::atomic<uint32_t> Direction;
    std::atomic<uint32_t> Channel;
    std::atomic<uint32_t> Bitrate;
    std::atomic<uint32_t> BitrateActual;
    std::atomic<uint32_t> BufferSize;
    std::atomic<uint32_t> Reopen;
    std::atomic<uint32_t> RtpSwitchCount;
    RtpChannelConfig Config;
};

// The whole table: a header of 16 bytes, 16 send records, 16 receive records.
struct RtpContext {
    std::atomic<uint32_t> Instance;
    std::atomic<uint32_t> HandleCount;
    std::atomic<uint32_t> TxChannelCount;
    std::atomic<uint32_t> RxChannelCount;
    RtpChannelContext Channels[kDirections][kChannels];
};

static_assert(std::atomic<uint32_t>::is_always_lock_free);
static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));
static_assert(sizeof(RtpChannelConfig) == 520);
static_assert(offsetof(RtpChannelConfig, RemoteAddress) == 256);
static_assert(offsetof(RtpChannelConfig, Multicast) == 512);
static_assert(offsetof(RtpChannelConfig, Rtp) == 513 && offsetof(RtpChannelConfig, Ttl) == 514);
static_assert(offsetof(RtpChannelConfig, MulticastOption) == 515);
static_assert(offsetof(RtpChannelConfig, Port) == 516);

// The layout, in this file and in the header for programs that watch the table. What stands before
// Config and Channels are numbers of 32 bits, without a gap.
static_assert(sizeof(RtpChannelContext) == 552 && sizeof(QXV_RTP_TableChannel) == 552);
static_assert(offsetof(RtpChannelContext, Config) == 32);
static_assert(offsetof(QXV_RTP_TableChannel, Config) == 32);
static_assert(sizeof(RtpContext) == 17680 && sizeof(QXV_RTP_Table) == 17680);
static_assert(offsetof(RtpContext, Channels) == 16 && offsetof(QXV_RTP_Table, Channels) == 16);

#endif
