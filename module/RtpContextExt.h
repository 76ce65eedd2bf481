// The runtime table: what a channel has only in the process that started it.
#ifndef MODULE_RTPCONTEXTEXT_H
#define MODULE_RTPCONTEXTEXT_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "Export.h"
#include "RtpContext.h"
#include "ZAQSimpleBuffer.h"
#include "ZAQStreamTimer.h"
#include "ZAQThread.h"

// The runtime row of one channel, 40 bytes. The pointers are owning; null means absent. The start
// operations fill them, the end operations free them; Lifecycle.cpp says why no thread uses an
// object that is being freed.
//
//   field    written by                                       read by
//   Cancel   load; start (0); cancel, end, transmit thread (1)  Send, Receive, transmit thread
//   Running  load; cancel, end (0); start (1, last of all)      housekeeping
//   Socket   transmit thread or housekeeping, start, end        transmit thread, housekeeping, end
//   Thread   start, end                                         start, end
//   Timer    start, end                    SetBitrate, housekeeping, transmit thread, intake
//   Buffer   start, end                    Send, Receive, transmit thread, intake
//
// Every store is at least a release and every load at least an acquire, except where a thread reads
// a field that only it writes, and in the statistics, which follow no pointer. They all pair in the
// same way: a thread that sees a field's new value sees everything that the writer did before. So a
// thread that sees Running set may rely on Timer and Buffer being set, and a thread that finds an
// object finds it complete.
struct RtpChannelContextExt {
    std::atomic<uint32_t> Cancel;   // 1 = stop requested, or not started
    std::atomic<uint32_t> Running;  // 1 = started in this process
    std::atomic<void*> Socket;
    std::atomic<CZAQThread*> Thread;  // null on receive channels
    std::atomic<CZAQStreamTimer*> Timer;
    std::atomic<CZAQSimpleBuffer*> Buffer;
};

static_assert(std::atomic<void*>::is_always_lock_free);
static_assert(sizeof(RtpChannelContextExt) == 40);
static_assert(offsetof(RtpChannelContextExt, Cancel) == 0);
static_assert(offsetof(RtpChannelContextExt, Running) == 4);
static_assert(offsetof(RtpChannelContextExt, Socket) == 8);
static_assert(offsetof(RtpChannelContextExt, Thread) == 16);
static_assert(offsetof(RtpChannelContextExt, Timer) == 24);
static_assert(offsetof(RtpChannelContextExt, Buffer) == 32);

// Indexed by instance, of which there is one, direction and channel.
ZAQ_EXPORT extern RtpChannelContextExt g_ContextExt[1][kDirections][kChannels];

static_assert(sizeof(g_ContextExt) == 1280);

#endif
