/**
 * @file
 * The shared table: every channel's configuration, state and measured bitrate, for other processes.
 *
 * Each process that loads the module removes the file QXV_RTP_TABLE_PATH and makes a new one of
 * sizeof(QXV_RTP_Table) bytes, on which it works from then on. Where it may not remove the file,
 * because it is another user's, it works on the one that is there if it may write to it; else
 * QXV_RTP_Create returns null. So a watcher sees the process that loaded the module last. It needs
 * only the file, not the library, and opens the path again when another file has taken its place
 * (st_ino). The file stays when the process ends.
 *
 * A watcher maps the file for reading. All numbers are in host byte order and change at any time,
 * each by itself: read them as volatile, or with __atomic_load_n. The texts and bytes of a
 * configuration are not stored as one: what is read while somebody calls QXV_RTP_SetConfig may be
 * part old, part new. Only the process that runs the channels may change a configuration.
 */
#ifndef QXV_RTP_TABLE_H
#define QXV_RTP_TABLE_H

#include "QXV_RTP.h"

/** Where the table lies. */
#define QXV_RTP_TABLE_PATH "/tmp/__QXV_RTP_SHARE_MEMORY__"

/** One channel: 32 bytes of state, then its configuration; 552 bytes. */
typedef struct QXV_RTP_TableChannel {
    uint32_t Instance;      /**< offset 0: always 0 */
    uint32_t Direction;     /**< 4: QXV_RTP_SEND or QXV_RTP_RECEIVE; equals the record's position */
    uint32_t Channel;       /**< 8: 0 to 15; equals the record's position */
    uint32_t Bitrate;       /**< 12: requested, bits per second; 0 on receive channels */
    uint32_t BitrateActual; /**< 16: measured, bits per second, refreshed once a second */
    uint32_t BufferSize;    /**< 20: size of the channel's buffer, bytes; 0 while it is ended */
    /** 24: 1 = the socket must be made (again) before use, 0 = it matches Config */
    uint32_t Reopen;
    /** 28: receive: datagrams of the other form than Config.Rtp says, in a row: 0 to 4; after a
        switch it stays at 4 or counts on, until a datagram of the form in Config.Rtp comes */
    uint32_t RtpSwitchCount;
    RtpChannelConfig Config; /**< 32 */
} QXV_RTP_TableChannel;

/** The whole table: 17680 bytes. */
typedef struct QXV_RTP_Table {
    uint32_t Instance;       /**< offset 0: always 0 */
    uint32_t HandleCount;    /**< 4: handles open; informational */
    uint32_t TxChannelCount; /**< 8: send channels, 16 */
    uint32_t RxChannelCount; /**< 12: receive channels, 16 */
    /** 16: the 16 send channels, then the 16 receive channels */
    QXV_RTP_TableChannel Channels[2][QXV_RTP_CHANNELS];
} QXV_RTP_Table;

#endif
