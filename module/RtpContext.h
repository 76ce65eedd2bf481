// The shared table: configuration, state and measured bitrate of every channel, the contents of the
// file that each loading process makes and other processes may watch.
#ifndef MODULE_RTPCONTEXT_H
#define MODULE_RTPCONTEXT_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "QXV_RTP.h"

inline constexpr char kSharedMemoryPath[] = "/tmp/__QXV_RTP_SHARE_MEMORY__";

inline constexpr uint32_t kSend = QXV_RTP_SEND;
inline constexpr uint32_t kReceive = QXV_RTP_RECEIVE;
inline constexpr uint32_t kDirections = 2;
inline constexpr uint32_t kChannels = QXV_RTP_CHANNELS;

// One channel: 32 bytes of state, then the configuration. All numbers are in host byte order. The
// counters are atomic because threads and processes share them; a lock-free atomic has the size and
// the address-free access of the plain number.
//
//   offset  field
//        0  Instance         always 0
//        4  Direction        0 send, 1 receive; equals the record's position
//        8  Channel          0 to 15; equals the record's position
//       12  Bitrate          requested, bits per second; 0 on receive channels
//       16  BitrateActual    measured, bits per second, refreshed once a second
//       20  BufferSize       capacity of the ring buffer, bytes; 0 while the channel is ended
//       24  Reopen           1 = the socket must be made (again) before use, 0 = it matches Config
//       28  RtpSwitchCount   receive: datagrams since the last one that fitted Config.Rtp, 0 to 4,
//                            counting on above 4 after a switch
//       32  Config           see RtpChannelConfig
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
    std::atomic<uint32_t> Instance;     // always 0
    std::atomic<uint32_t> HandleCount;  // handles open; informational
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

#endif
