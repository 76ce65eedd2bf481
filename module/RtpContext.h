// The shared table: configuration, state and measured bitrate of every channel, the contents of the
// file that each loading process makes and other processes may watch.
#ifndef MODULE_RTPCONTEXT_H
#define MODULE_RTPCONTEXT_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "QXV_RTP.h"
#include "QXV_RTP_table.h"

inline constexpr char kSharedMemoryPath[] = QXV_RTP_TABLE_PATH;

inline constexpr uint32_t kSend = QXV_RTP_SEND;
inline constexpr uint32_t kReceive = QXV_RTP_RECEIVE;
inline constexpr uint32_t kDirections = 2;
inline constexpr uint32_t kChannels = QXV_RTP_CHANNELS;

// One channel, as QXV_RTP_table.h draws it for other processes. The counters are atomic because threads
// and processes share them; a lock-free atomic has the size and the address-free access of the plain
// number.
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
static_assert(offsetof(RtpChannelConfig, LocalAddress) == 0);
static_assert(offsetof(RtpChannelConfig, RemoteAddress) == 256);
static_assert(offsetof(RtpChannelConfig, Multicast) == 512);
static_assert(offsetof(RtpChannelConfig, Rtp) == 513);
static_assert(offsetof(RtpChannelConfig, Ttl) == 514);
static_assert(offsetof(RtpChannelConfig, MulticastOption) == 515);
static_assert(offsetof(RtpChannelConfig, Port) == 516);
static_assert(offsetof(RtpChannelConfig, Reserved) == 518);

static_assert(sizeof(RtpChannelContext) == 552);
static_assert(offsetof(RtpChannelContext, Instance) == 0);
static_assert(offsetof(RtpChannelContext, Direction) == 4);
static_assert(offsetof(RtpChannelContext, Channel) == 8);
static_assert(offsetof(RtpChannelContext, Bitrate) == 12);
static_assert(offsetof(RtpChannelContext, BitrateActual) == 16);
static_assert(offsetof(RtpChannelContext, BufferSize) == 20);
static_assert(offsetof(RtpChannelContext, Reopen) == 24);
static_assert(offsetof(RtpChannelContext, RtpSwitchCount) == 28);
static_assert(offsetof(RtpChannelContext, Config) == 32);

static_assert(sizeof(RtpContext) == 17680);
static_assert(offsetof(RtpContext, Instance) == 0);
static_assert(offsetof(RtpContext, HandleCount) == 4);
static_assert(offsetof(RtpContext, TxChannelCount) == 8);
static_assert(offsetof(RtpContext, RxChannelCount) == 12);
static_assert(offsetof(RtpContext, Channels) == 16);
static_assert(sizeof(RtpContext::Channels[0]) == 8832);

// The same for those who watch it.
static_assert(sizeof(QXV_RTP_TableChannel) == sizeof(RtpChannelContext));
static_assert(offsetof(QXV_RTP_TableChannel, Instance) == offsetof(RtpChannelContext, Instance));
static_assert(offsetof(QXV_RTP_TableChannel, Direction) == offsetof(RtpChannelContext, Direction));
static_assert(offsetof(QXV_RTP_TableChannel, Channel) == offsetof(RtpChannelContext, Channel));
static_assert(offsetof(QXV_RTP_TableChannel, Bitrate) == offsetof(RtpChannelContext, Bitrate));
static_assert(offsetof(QXV_RTP_TableChannel, BitrateActual) ==
              offsetof(RtpChannelContext, BitrateActual));
static_assert(offsetof(QXV_RTP_TableChannel, BufferSize) ==
              offsetof(RtpChannelContext, BufferSize));
static_assert(offsetof(QXV_RTP_TableChannel, Reopen) == offsetof(RtpChannelContext, Reopen));
static_assert(offsetof(QXV_RTP_TableChannel, RtpSwitchCount) ==
              offsetof(RtpChannelContext, RtpSwitchCount));
static_assert(offsetof(QXV_RTP_TableChannel, Config) == offsetof(RtpChannelContext, Config));
static_assert(sizeof(QXV_RTP_Table) == sizeof(RtpContext));
static_assert(offsetof(QXV_RTP_Table, Instance) == offsetof(RtpContext, Instance));
static_assert(offsetof(QXV_RTP_Table, HandleCount) == offsetof(RtpContext, HandleCount));
static_assert(offsetof(QXV_RTP_Table, TxChannelCount) == offsetof(RtpContext, TxChannelCount));
static_assert(offsetof(QXV_RTP_Table, RxChannelCount) == offsetof(RtpContext, RxChannelCount));
static_assert(offsetof(QXV_RTP_Table, Channels) == offsetof(RtpContext, Channels));

#endif
