#include "Channel.h"

#include <dlfcn.h>

#include <cstring>
#include <utility>

#include "Module.h"
#include "ZAQSockets.h"

// The load routine and the housekeeping thread use both before any static constructor has run.
constinit RtpChannelContextExt g_ContextExt[1][kDirections][kChannels];

namespace {

constinit ChannelLocks g_Locks[kDirections][kChannels];

// Do both describe the same socket? Rtp is not part of it: the intake rewrites it as it goes.
bool SameSocket(const RtpChannelConfig& a, const RtpChannelConfig& b) {
    return memcmp(a.LocalAddress, b.LocalAddress, sizeof(a.LocalAddress)) == 0 &&
           memcmp(a.RemoteAddress, b.RemoteAddress, sizeof(a.RemoteAddress)) == 0 &&
           a.Multicast == b.Multicast && a.Ttl == b.Ttl && a.MulticastOption == b.MulticastOption &&
           a.Port == b.Port;
}

// Clears Reopen after a socket was made from `used`. A configuration that was stored meanwhile must
// not lose its request. Its writer, maybe in another process, stores the record first and sets Reopen
// second, with release: either the exchange finds that 1, and with its acquire the record is seen to
// differ, or the 1 comes after the exchange and stays.
void ConfirmSocket(const Channel& channel, const RtpChannelConfig& used) {
    const zaq::MutexLock lock(channel.Locks->State);
    channel.Record->Reopen.exchange(0, std::memory_order_acq_rel);
    RtpChannelConfig now;
    LoadConfig(*channel.Record, now);
    if (!SameSocket(now, used))
        channel.Record->Reopen.store(1, std::memory_order_release);
}

}  // namespace

RtpChannelContext* FindRecord(void* handle, uint32_t direction, uint32_t channel) {
    if (handle == nullptr || direction >= kDirections || channel >= kChannels)
        return nullptr;
    return &static_cast<RtpContext*>(handle)->Channels[direction][channel];
}

zaq::Mutex& StateLock(uint32_t direction, uint32_t channel) {
    return g_Locks[direction][channel].State;
}

Channel FindChannel(void* handle, uint32_t direction, uint32_t channel) {
    RtpChannelContext* const record = FindRecord(handle, direction, channel);
    // Relaxed: the field is set once, before the handle exists.
    if (record == nullptr ||
        static_cast<RtpContext*>(handle)->Instance.load(std::memory_order_relaxed) != 0)
        return {};
    return {record, &g_ContextExt[0][direction][channel], &g_Locks[direction][channel]};
}

Channel FindChannel(RtpChannelContext* record) {
    if (record == nullptr)
        return {};
    // A record of the table says itself which channel it is; where it stands says the same and can
    // not be overwritten by another process, which would lead this thread to a row that it has no
    // right to use.
    const auto first = reinterpret_cast<uintptr_t>(g_pContext) + offsetof(RtpContext, Channels);
    const uintptr_t distance = reinterpret_cast<uintptr_t>(record) - first;
    uint32_t direction;
    uint32_t channel;
    if (g_pContext != nullptr && distance < sizeof(g_pContext->Channels)) {
        const auto position = static_cast<uint32_t>(distance / sizeof(RtpChannelContext));
        direction = position / kChannels;
        channel = position % kChannels;
    } else {
        // A record outside the table is this process's own and taken at its word.
        direction = record->Direction.load(std::memory_order_relaxed);  // set once, at creation
        channel = record->Channel.load(std::memory_order_relaxed);
        if (record->Instance.load(std::memory_order_relaxed) != 0 || direction >= kDirections ||
            channel >= kChannels)
            return {};
    }
    return {record, &g_ContextExt[0][direction][channel], &g_Locks[direction][channel]};
}

LibraryReference LibraryReference::ToThis() {
    Dl_info self;
    return LibraryReference(
        dladdr(&g_Locks, &self) != 0 ? dlopen(self.dli_fname, RTLD_LAZY | RTLD_NOLOAD) : nullptr);
}

LibraryReference::~LibraryReference() {
    if (m_Handle != nullptr)
        dlclose(m_Handle);
}

void LibraryReference::Exchange(const Channel& channel) {
    std::swap(m_Handle, channel.Locks->Library);
}

// Four stores meet when a cancel and a start run at the same time: Cancel 1, Running 0 here, and
// Cancel 0, Running 1 there. Each side looks once more at Cancel after its last store, and both see
// one order of all accesses (sequential consistency): the cancel that finds its 1 gone has been
// overtaken by a start, and repeats; the start that finds a 1 has been cancelled, and is not running.
void CancelChannel(const Channel& channel) {
    do {
        channel.Row->Cancel.store(1);
        channel.Row->Running.store(0);
    } while (channel.Row->Cancel.load() == 0);
}

void SetRunning(const Channel& channel) {
    channel.Row->Running.store(1);
    if (channel.Row->Cancel.load() != 0)
        channel.Row->Running.store(0);
}

void FreeObjects(const Channel& channel) {
    CZAQSimpleBuffer* buffer;
    CZAQStreamTimer* timer;
    {
        const zaq::MutexLock state(channel.Locks->State);
        const zaq::MutexLock intake(channel.Locks->Intake);
        buffer = channel.Row->Buffer.exchange(nullptr, std::memory_order_acq_rel);
        timer = channel.Row->Timer.exchange(nullptr, std::memory_order_acq_rel);
    }
    delete buffer;
    delete timer;
}

void MakeObjects(const Channel& channel, uint32_t bufferSize) {
    // Release: who finds the pointer, with acquire, finds the object complete.
    channel.Row->Timer.store(new CZAQStreamTimer, std::memory_order_release);
    channel.Row->Buffer.store(new CZAQSimpleBuffer(bufferSize), std::memory_order_release);
}

void JoinThread(const Channel& channel) {
    CZAQThread* const thread = channel.Row->Thread.load(std::memory_order_acquire);
    if (thread == nullptr)
        return;
    constexpr unsigned int kWait_ms = 5000;  // the wait itself has no limit
    thread->CloseWithWait(kWait_ms);
    delete thread;
    channel.Row->Thread.store(nullptr, std::memory_order_release);
}

void InitStatus(RtpChannelContext& record, uint32_t bitrate, uint32_t bufferSize) {
    record.Bitrate.store(bitrate, std::memory_order_relaxed);  // numbers for display, in no order
    record.BitrateActual.store(0, std::memory_order_relaxed);
    record.BufferSize.store(bufferSize, std::memory_order_relaxed);
    record.Reopen.store(1, std::memory_order_release);
}

void ClearStatus(RtpChannelContext& record) {
    InitStatus(record, 0, 0);
}

// Byte by byte with relaxed atomics, so that a concurrent writer is no undefined behaviour: that is
// half a microsecond, a few times in a channel's life. The order against Reopen comes from that
// flag's own release and acquire.
void LoadConfig(RtpChannelContext& record, RtpChannelConfig& config) {
    auto* const from = reinterpret_cast<unsigned char*>(&record.Config);
    auto* const to = reinterpret_cast<unsigned char*>(&config);
    for (size_t byte = 0; byte < sizeof(config); ++byte) {
        // cppcheck-suppress objectIndex ; all are bytes of the one record
        to[byte] = std::atomic_ref(from[byte]).load(std::memory_order_relaxed);
    }
}

void StoreConfig(RtpChannelContext& record, const RtpChannelConfig& config) {
    const auto* const from = reinterpret_cast<const unsigned char*>(&config);
    auto* const to = reinterpret_cast<unsigned char*>(&record.Config);
    for (size_t byte = 0; byte < sizeof(config); ++byte) {
        // cppcheck-suppress objectIndex ; all are bytes of the one record
        std::atomic_ref(to[byte]).store(from[byte], std::memory_order_relaxed);
    }
}

bool IsTerminated(const char (&address)[QXV_RTP_ADDRESS_SIZE]) {
    return memchr(address, '\0', sizeof(address)) != nullptr;
}

bool OpenSocket(const Channel& channel) {
    // The socket library gets a copy: it reads strings up to their NUL, and those in the table may
    // change under it, or have none.
    RtpChannelConfig config;
    {
        const zaq::MutexLock lock(channel.Locks->State);
        LoadConfig(*channel.Record, config);
    }
    if (!IsTerminated(config.LocalAddress) || !IsTerminated(config.RemoteAddress))
        return false;
    const bool send = channel.Row < &g_ContextExt[0][kReceive][0];
    void* const socket =
        ZAQUDPSocket_Create(config.LocalAddress, config.RemoteAddress, config.Port, config.Port,
                            config.Multicast, send ? 1 : 0, config.MulticastOption, config.Ttl,
                            send ? nullptr : &RxProcess, send ? nullptr : channel.Record);
    channel.Row->Socket.store(socket, std::memory_order_release);
    if (socket == nullptr)
        return false;
    ConfirmSocket(channel, config);
    return true;
}

void CloseSocket(const Channel& channel) {
    void* const socket = channel.Row->Socket.load(std::memory_order_acquire);
    if (socket != nullptr)
        ZAQUDPSocket_Destroy(socket);
    channel.Row->Socket.store(nullptr, std::memory_order_release);
}
