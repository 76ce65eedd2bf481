// The module's own routines and globals: ordinary symbols, but a host needs none of them.
#ifndef MODULE_MODULE_H
#define MODULE_MODULE_H

#include <sys/socket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "Export.h"
#include "RtpContext.h"
#include "ZAQShareMemory.h"
#include "ZAQSimpleBuffer.h"
#include "ZAQStreamTimer.h"
#include "ZAQThread.h"

// The runtime row of one channel, 40 bytes. The pointers are owning; null means absent. The start
// operations fill them, the end operations free them; Lifecycle.cpp says what protects them.
//
//   field    written by                                       read by
//   Cancel   load; start (0, 1 without a thread); cancel, end,  Send, Receive, transmit thread
//            transmit thread (1)
//   Running  load; start, cancel, end (0); start (1, last of all)  housekeeping
//   Socket   transmit thread or housekeeping, start, end  transmit thread, housekeeping, start, end
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
static_assert(offsetof(RtpChannelContextExt, Running) == 4);
static_assert(offsetof(RtpChannelContextExt, Socket) == 8);
static_assert(offsetof(RtpChannelContextExt, Timer) == 24);

// The runtime table, indexed by instance, of which there is one, direction and channel: what a
// channel has only in the process that started it.
ZAQ_EXPORT extern RtpChannelContextExt g_ContextExt[1][kDirections][kChannels];

ZAQ_EXPORT extern CZAQShareMemory g_ShareMemory;
// The shared table in this process; null until a load has succeeded. Set before any thread starts.
ZAQ_EXPORT extern RtpContext* g_pContext;
ZAQ_EXPORT extern CZAQThread* g_pThread;               // the housekeeping thread
ZAQ_EXPORT extern std::atomic<uint32_t> g_ThreadQuit;  // 1 tells it to end
ZAQ_EXPORT extern uint32_t g_TxChannelCount;
ZAQ_EXPORT extern uint32_t g_RxChannelCount;

extern "C" {

// Load and unload, run from the library's constructor and destructor lists.
ZAQ_EXPORT int QXV_RTP_Constructor();  // 1 loaded, 0 no shared table
ZAQ_EXPORT void QXV_RTP_Deconstructor();
ZAQ_EXPORT void Attach_QXV_RTP_SO();
ZAQ_EXPORT void Detach_QXV_RTP_SO();

// Thread routines: the argument is not used, and the send channel's record.
ZAQ_EXPORT void ThreadHouseKeep(void* argument);
ZAQ_EXPORT void ThreadTx(void* argument);
// Receive callback of every receive socket.
ZAQ_EXPORT void RxProcess(void* socket, void* reserved, sockaddr* source, unsigned char* data,
                          unsigned int length);
}

#endif
