/**
 * @file
 * QXV_RTP: MPEG transport streams over UDP, raw or under RTP.
 *
 * The library offers 16 send channels and 16 receive channels. A host gives a send channel the
 * bytes of a transport stream (ISO/IEC 13818-1) at its own pace; the channel sends them as UDP
 * datagrams of seven transport-stream packets, paced to the channel's bitrate. A receive channel
 * collects the payload of every datagram that arrives, finds out by itself whether the traffic
 * carries RTP (RFC 3550, payload type 33 of RFC 3551, encapsulation of RFC 2250), and the host
 * reads a stream of bytes.
 *
 * Conventions:
 * - Ready: as soon as the library is loaded; there is no initialisation call.
 * - Handle: QXV_RTP_Create() returns it. It is the same for every caller in the process and is the
 *   first argument of every function that works on a channel. No other pointer may be passed.
 * - Results: uint32_t: 1 done, 0 failed or refused. There are no error codes and there is no log.
 *   Every function returns 0 for a null handle, a direction above 1 or a channel above 15.
 * - Units: bitrates in bits per second of transport stream, without headers; lengths in bytes;
 *   ports in host byte order.
 * - Threads: any thread may call any function. On one channel, one thread at a time sends, and one
 *   thread at a time receives, else it is undefined which bytes they move; Cancel and End may come
 *   from any other thread at any time and make a waiting Send or Receive return 0. The Cancel
 *   functions may also be called from a signal handler, the others may not. Send and Receive are
 *   cancellation points (pthreads(7)) while they wait; no other function is one.
 * - Memory: the library copies what it is given; it keeps no pointer of the host's. Where a page of
 *   the host's memory is slow to arrive, as from a file on a server, only the calling thread waits.
 *   A signal handler must not leave a function of the library by longjmp().
 * - Exceptions: none, but for a std::bad_alloc from SendStart or ReceiveStart when there is no
 *   memory for the channel. Nothing is left of such a start but the numbers in the shared table.
 * - Unloading: end every started channel first. Their threads run the library's code, so that the
 *   process crashes if it is unloaded under them; exit() may come at any time. In a child of fork()
 *   only exit and exec are allowed.
 * - Platform: 64-bit little-endian Linux, 4.18 or later, with glibc 2.32 or later. What newer
 *   kernels bring is used where it is there.
 */
#ifndef QXV_RTP_H
#define QXV_RTP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Marks what the library exports. */
#define QXV_RTP_API __attribute__((visibility("default")))

#define QXV_RTP_SEND 0u           /**< direction: send */
#define QXV_RTP_RECEIVE 1u        /**< direction: receive */
#define QXV_RTP_CHANNELS 16u      /**< channels in each direction, numbered from 0 */
#define QXV_RTP_ADDRESS_SIZE 256u /**< size of an address field, the terminating NUL included */
#define QXV_RTP_BUFFER_UNIT 256u  /**< unit of QXV_RTP_SendStart's buffer size, in bytes */

/**
 * Configuration of one channel: 520 bytes, as in the shared table and the same in every process.
 *
 * Addresses are NUL-terminated text: dotted IPv4, or IPv6 as in RFC 4291, 2.2, with a zone (RFC
 * 4007) where one is needed ("ff02::1%eth0"). RemoteAddress may say more:
 * - "SOURCE@GROUP" on a receive channel joins the group for one sender only (RFC 4607), as in
 *   "192.0.2.9@232.1.1.1". A send channel ignores the source.
 * - "ADDRESS?dscp=N" on a send channel, with N from 0 to 63, marks its datagrams (RFC 2474), as in
 *   "239.1.1.1?dscp=34". A receive channel ignores the mark.
 */
typedef struct RtpChannelConfig {
    /** offset 0: one of the addresses of the interface to use; "0.0.0.0" or "::" = any */
    char LocalAddress[QXV_RTP_ADDRESS_SIZE];
    /** 256: send: destination; receive: multicast group, or the any-address */
    char RemoteAddress[QXV_RTP_ADDRESS_SIZE];
    uint8_t Multicast; /**< 512: 1 exactly when RemoteAddress is a multicast group */
    /** 513: send: 1 = put an RTP header in front of each datagram; receive: the form detected last
        (1 RTP, 0 raw), with which the channel starts: see QXV_RTP_Receive() */
    uint8_t Rtp;
    uint8_t Ttl; /**< 514: TTL (IPv4) or hop limit (IPv6) of sent multicast datagrams */
    /** 515: receive from a group: 0 = join on the interface of LocalAddress, 1 = join on every
        multicast-capable interface that is up, as far as the system lets one socket (for IPv4
        20, the sysctl net.ipv4.igmp_max_memberships) */
    uint8_t MulticastOption;
    uint16_t Port; /**< 516: UDP port: destination of a send channel, own port of a receive one */
    uint16_t Reserved; /**< 518: 0 */
} RtpChannelConfig;

/** Largest buffer size, in units of 256 bytes, that SendStart is meant for: 16384 (4 MiB). */
QXV_RTP_API uint32_t QXV_RTP_GetMaximumBufferPackets(void);

/** Number of receive channels: 16. */
QXV_RTP_API uint32_t QXV_RTP_GetInputChannelCount(void);

/** Number of send channels: 16. */
QXV_RTP_API uint32_t QXV_RTP_GetOutputChannelCount(void);

/**
 * Returns the handle, or null when `index` is not 0 or the library could not set up its shared
 * table at load. Counts the handle in the table; nothing else depends on the count.
 */
QXV_RTP_API void* QXV_RTP_Create(int32_t index);

/** Takes the handle off the count. Channels go on; null does nothing. */
QXV_RTP_API void QXV_RTP_Destroy(void* handle);

/** Has no effect; returns 1 for any handle but null. */
QXV_RTP_API uint32_t QXV_RTP_Start(void* handle);

/** Has no effect; returns 1 for any handle but null. */
QXV_RTP_API uint32_t QXV_RTP_End(void* handle);

/**
 * @name Capabilities
 * The bits of the 16-bit word that QXV_RTP_GetDeviceInfo() gives in two bytes.
 * @{
 */
#define QXV_RTP_CAN_SEND 0x0001u      /**< has send channels */
#define QXV_RTP_CAN_RECEIVE 0x0002u   /**< has receive channels */
#define QXV_RTP_CAN_RTP 0x0004u       /**< RTP, payload type 33 */
#define QXV_RTP_CAN_RAW 0x0008u       /**< UDP without RTP */
#define QXV_RTP_CAN_MULTICAST 0x0010u /**< groups */
#define QXV_RTP_CAN_IPV6 0x0020u      /**< IPv6 beside IPv4 */
/** @} */

/**
 * Describes the device; each output may be null.
 * @param[in]  handle          of QXV_RTP_Create()
 * @param[out] zero            0
 * @param[out] one             1
 * @param[out] capabilityLow   low byte of the capability word, QXV_RTP_CAN_...
 * @param[out] capabilityHigh  its high byte
 */
QXV_RTP_API uint32_t QXV_RTP_GetDeviceInfo(void* handle, uint8_t* zero, uint8_t* one,
                                           uint8_t* capabilityLow, uint8_t* capabilityHigh);

/** Copies the channel's configuration to `config` (out). Does not block. */
QXV_RTP_API uint32_t QXV_RTP_GetConfig(void* handle, uint32_t direction, uint32_t channel,
                                       RtpChannelConfig* config);

/**
 * Stores a configuration. A channel that is started gets a new socket: a send channel within a few
 * milliseconds (a second where no socket could be opened before, or the system's send queue is
 * full), a receive channel within a second. Does not block.
 *
 * Refused, with nothing changed: a text that is no address or has no NUL, a LocalAddress that is
 * multicast or has a source or a DSCP, a Multicast byte that disagrees with RemoteAddress, and
 * addresses of different families.
 * @param[in]     handle     of QXV_RTP_Create()
 * @param[in]     direction  QXV_RTP_SEND or QXV_RTP_RECEIVE
 * @param[in]     channel    0 to 15
 * @param[in,out] config     normalised in place: a send channel's MulticastOption becomes 0; a
 *                           unicast receive channel's RemoteAddress becomes "0.0.0.0" or
 *                           "0:0:0:0:0:0:0:0" and its MulticastOption 0
 */
QXV_RTP_API uint32_t QXV_RTP_SetConfig(void* handle, uint32_t direction, uint32_t channel,
                                       RtpChannelConfig* config);

/**
 * Starts a send channel. Where it is started already, its thread is stopped and its buffer replaced
 * by a new, empty one; a Send that waits goes on with that one. Where the system refuses the
 * channel's thread, the channel is cancelled from the start. Does not block, but for the end of an
 * earlier thread (see QXV_RTP_SendEnd()).
 * @param[in] handle       of QXV_RTP_Create()
 * @param[in] channel      0 to 15
 * @param[in] bitrate      bits per second, not 0
 * @param[in] bufferUnits  size of the buffer in units of 256 bytes, not 0; at least 9 (2304 bytes),
 *                         so that there is room for the 2048 bytes from which the channel finds out
 *                         the packet size
 */
QXV_RTP_API uint32_t QXV_RTP_SendStart(void* handle, uint32_t channel, uint32_t bitrate,
                                       uint32_t bufferUnits);

/**
 * Gives `length` bytes to the channel; blocks until all of them are in its buffer. The stream must
 * begin with a sync byte and have packets of 188 or 204 bytes. The channel sends whole datagrams of
 * seven packets only: what is left of the last one waits for more data.
 *
 * Returns 0 when the channel is cancelled, or has cancelled itself because it lost the sync byte,
 * or is not started; a length of 0 always succeeds.
 */
QXV_RTP_API uint32_t QXV_RTP_Send(void* handle, uint32_t channel, const uint8_t* data,
                                  uint32_t length);

/**
 * Ends the channel and frees what it holds; bytes not yet sent are dropped. Blocks until the
 * channel's thread has ended: a few milliseconds, and at most about a second while its socket can
 * not be opened or the system's send queue stays full. Returns 1 also where it is not started.
 */
QXV_RTP_API uint32_t QXV_RTP_SendEnd(void* handle, uint32_t channel);

/** Stops sending and makes a waiting Send return 0. Does not block; SendEnd must still follow. */
QXV_RTP_API uint32_t QXV_RTP_SendCancel(void* handle, uint32_t channel);

/** Cancels every send and every receive channel. Does not block. */
QXV_RTP_API uint32_t QXV_RTP_Cancel(void* handle);

/**
 * Changes the bitrate of a started send channel; its schedule begins anew at the moment of the
 * call, and RTP sequence numbers and timestamps begin at 0. A bitrate of 0 leaves the pace as it
 * is. Returns 0 when the channel is not started. Does not block.
 */
QXV_RTP_API uint32_t QXV_RTP_SetBitrate(void* handle, uint32_t channel, uint32_t bitrate);

/**
 * Gives in `bitrate` (out) the measured bitrate, in bits per second, of the *receive* channel of
 * that number, which is refreshed once a second. Does not block.
 */
QXV_RTP_API uint32_t QXV_RTP_GetBitrate(void* handle, uint32_t channel, uint32_t* bitrate);

/**
 * Starts a receive channel with a buffer of 4 MiB. The housekeeping thread opens the channel's
 * socket within a second, and tries again every second while it cannot be opened; where the system
 * refused that thread when the library was loaded, no socket is opened. Where the channel is
 * started already, its buffer is replaced by a new, empty one, from which a Receive that waits goes
 * on, and its socket by another one. Does not block, but for the moment in which the channel's
 * socket is being opened or closed.
 */
QXV_RTP_API uint32_t QXV_RTP_ReceiveStart(void* handle, uint32_t channel);

/**
 * Reads exactly `length` bytes into `data` (out); blocks until they are there. Returns 0 when the
 * channel is or becomes cancelled, or is not started; bytes read up to then are gone. A length of 0
 * always succeeds. A datagram for which the buffer has no room is dropped whole. A host that serves
 * several channels from one thread reads no more than QXV_RTP_GetStatistics() says is there.
 *
 * What is read is the payload of the datagrams in the order of their arrival; nobody looks whether
 * it consists of packets. Four datagrams in a row of the other form switch the channel between RTP
 * and raw. RTP that arrives while Rtp is 0 thus brings its headers into the bytes three times, and
 * a host that reads packets of 188 bytes is out of step from then on. So start with Rtp 1, which
 * costs nothing where the traffic is raw, and find the sync byte (0x47 every 188 or 204 bytes)
 * again after every change that the statistics show.
 *
 * RTP is what has version 2, payload type 33 and a sync byte behind the header and its CSRC list.
 * So datagrams with a header extension, with another payload type, or whose payload does not begin
 * with a packet, count as raw and are delivered with their headers. Padding counts as payload.
 */
QXV_RTP_API uint32_t QXV_RTP_Receive(void* handle, uint32_t channel, uint8_t* data,
                                     uint32_t length);

/**
 * Ends the channel and frees what it holds. On a channel that is not started it returns 1. Blocks
 * for the moment in which the channel's socket is being opened or closed.
 */
QXV_RTP_API uint32_t QXV_RTP_ReceiveEnd(void* handle, uint32_t channel);

/**
 * Makes a waiting Receive return 0. Does not block. Datagrams still arrive in the buffer;
 * ReceiveEnd must still follow.
 */
QXV_RTP_API uint32_t QXV_RTP_ReceiveCancel(void* handle, uint32_t channel);

/**
 * What has happened to a channel, and how it stands. The counters begin at 0 with every start and
 * stay as they are after the end, until the next start. The structure may grow at its end in later
 * versions: the caller sets Size, and the library fills what both know.
 */
typedef struct QXV_RTP_Statistics {
    uint32_t Size;    /**< offset 0: in: sizeof(QXV_RTP_Statistics); out: bytes that were filled */
    uint32_t Started; /**< 4: 1 = started and not ended */
    /** 8: 1 = Send and Receive return 0, since the host has cancelled the channel, or the channel
        itself has because its stream lost the sync byte; also 1 while it is not started */
    uint32_t Cancelled;
    uint32_t SocketOpen; /**< 12: 1 = the channel's socket is open */
    /** 16: bytes in the buffer: so many Receive takes without waiting, or so many are to be sent */
    uint32_t BufferedBytes;
    /** 20: bytes for which the buffer has room: Send stores so many without waiting */
    uint32_t FreeBytes;
    /** 24: sockets opened; above 1 after a new configuration, or after sending has failed */
    uint32_t SocketsOpened;
    uint32_t ModeChanges; /**< 28: receive: changes between raw and RTP */
    uint64_t Datagrams;   /**< 32: sent, or received and stored in the buffer */
    uint64_t Bytes;       /**< 40: of their payload, without RTP headers */
    /** 48: receive: datagrams lost because the buffer had no room for them, or because their RTP
        header is longer than they are */
    uint64_t DatagramsDropped;
    uint64_t SendFailures; /**< 56: send: datagrams lost because the system refused them */
} QXV_RTP_Statistics;

/**
 * Gives the state and the counters of a channel, started or not. Takes no lock, waits for nobody,
 * and may be called from any thread as often as wanted; the numbers are not all of the same
 * instant. BufferedBytes and FreeBytes never promise too much to the thread that receives or sends:
 * it moves so many bytes without waiting.
 *
 * The caller sets Size in `statistics` (in, out). Returns 0 also for null or a Size below 64.
 */
QXV_RTP_API uint32_t QXV_RTP_GetStatistics(void* handle, uint32_t direction, uint32_t channel,
                                           QXV_RTP_Statistics* statistics);

#ifdef __cplusplus
}
#endif

#endif
