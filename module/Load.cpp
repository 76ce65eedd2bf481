// Load and unload: the table in shared memory, its defaults, and the housekeeping thread.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "Module.h"
#include "ThreadSafety.h"

// Constant-initialised, since the load routine runs before the library's static constructors.
constinit CZAQShareMemory g_ShareMemory;
RtpContext* g_pContext = nullptr;
CZAQThread* g_pThread = nullptr;
constinit std::atomic<uint32_t> g_ThreadQuit{0};
uint32_t g_TxChannelCount = kChannels;
uint32_t g_RxChannelCount = kChannels;

namespace {

constexpr uint16_t kFirstPort[kDirections] = {10000, 10100};
constexpr uint8_t kDefaultTtl = 255;

// A channel as it is before anybody configures it: RTP to or from group 224.1.direction.channel.
// What is not named here is 0, as all of a new file is.
void LayDownChannel(RtpContext& context, uint32_t direction, uint32_t channel) {
    RtpChannelContext& record = context.Channels[direction][channel];
    record.Direction.store(direction);
    record.Channel.store(channel);
    record.Reopen.store(1);
    RtpChannelConfig& config = record.Config;
    strcpy(config.LocalAddress, "0.0.0.0");
    snprintf(config.RemoteAddress, sizeof(config.RemoteAddress), "224.1.%u.%u", direction, channel);
    config.Multicast = 1;
    config.Rtp = 1;
    config.Ttl = kDefaultTtl;
    config.Port = static_cast<uint16_t>(kFirstPort[direction] + channel);
    g_ContextExt[0][direction][channel].Cancel.store(1);
}

void LayDownDefaults(RtpContext& context) {
    context.TxChannelCount.store(g_TxChannelCount);
    context.RxChannelCount.store(g_RxChannelCount);
    for (uint32_t direction = 0; direction < kDirections; ++direction)
        for (uint32_t channel = 0; channel < kChannels; ++channel)
            LayDownChannel(context, direction, channel);
}

// A file that another process has left is mapped without complaint, and an access may raise SIGBUS
// later: behind the file's end, or in a hole that a full disk cannot fill. This function makes
// every page writable now, so that such a file is refused instead.
//
// The file must keep its length. Anyone with write permission (its owner and root, or everybody
// where the umask was 0) can truncate it while it is mapped, and then the next access raises
// SIGBUS. Only a signal handler could prevent that, and signal handlers are the host's own affair.
bool HoldsTable(const CZAQShareMemory& segment) {
    constexpr size_t kSize = sizeof(RtpContext);
    struct stat status {};
    if (fstat(segment.File, &status) != 0 || status.st_size < static_cast<off_t>(kSize))
        return false;
#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23  // missing in older headers
#endif
    if (madvise(segment.Address, kSize, MADV_POPULATE_WRITE) == 0)
        return true;
    // Before Linux 5.14. Our own file has no holes.
    return errno == EINVAL &&
           (segment.Owner != 0 || fallocate(segment.File, FALLOC_FL_KEEP_SIZE, 0, kSize) == 0);
}

// Lets the segment object forget its file and mapping, which stay for the life of the process. So
// no exit handler and no unload can unmap the table under a thread that still uses it, or remove
// the file, which other processes may go on reading until the next load replaces it.
void ForgetSegment() {
    new (&g_ShareMemory) CZAQShareMemory;
}

// True when the segment object has the table. Where another process creates the file at the same
// moment, this one may open it, half written or whole: then it removes the name and makes another
// file, as if this process had been loaded later. Only what may not be removed is joined.
bool OpenTable() {
    constexpr int kAttempts = 10;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        char path[] = QXV_RTP_TABLE_PATH;
        if (g_ShareMemory.Create(path, sizeof(RtpContext), 1) == 0)
            return false;
        const bool owner = g_ShareMemory.Owner != 0;
        if (HoldsTable(g_ShareMemory) && (owner || (unlink(path) != 0 && errno != ENOENT)))
            return true;
        g_ShareMemory.Close();
        if (owner)
            return false;
    }
    return false;
}

}  // namespace

int QXV_RTP_Constructor() {
    const zaq::NoCancellation noCancellation;
    for (auto& direction : g_ContextExt[0])
        for (RtpChannelContextExt& row : direction) {
            row.Cancel.store(0);
            row.Running.store(0);
            row.Socket.store(nullptr);
            row.Thread.store(nullptr);
            row.Timer.store(nullptr);
            row.Buffer.store(nullptr);
        }
    if (!OpenTable()) {
        ForgetSegment();
        return 0;
    }
    g_pContext = reinterpret_cast<RtpContext*>(g_ShareMemory.Address);
    if (g_ShareMemory.Owner != 0)
        LayDownDefaults(*g_pContext);
    ForgetSegment();
    g_ThreadQuit.store(0, std::memory_order_release);
    // Where the system refuses the thread, the object has none; where there is no memory, there is
    // no object. Sending works either way, and receive sockets wait for the next load.
    g_pThread = new (std::nothrow) CZAQThread(&ThreadHouseKeep, nullptr, 0);
    return 1;
}

void QXV_RTP_Deconstructor() {
    const zaq::NoCancellation noCancellation;
    g_ThreadQuit.store(1, std::memory_order_release);  // pairs with the thread's acquire
    delete g_pThread;
    g_pThread = nullptr;
}

__attribute__((constructor)) void Attach_QXV_RTP_SO() {
    QXV_RTP_Constructor();
}

__attribute__((destructor)) void Detach_QXV_RTP_SO() {
    QXV_RTP_Deconstructor();
}
