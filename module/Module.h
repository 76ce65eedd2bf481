// The module's own routines and globals. They are visible as ordinary symbols, but a host needs
// none of them.
#ifndef MODULE_MODULE_H
#define MODULE_MODULE_H

#include <sys/socket.h>

#include <atomic>
#include <cstdint>

#include "RtpContext.h"
#include "RtpContextExt.h"
#include "ZAQShareMemory.h"
#include "ZAQThread.h"

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
