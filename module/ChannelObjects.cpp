#include "ChannelObjects.h"

#include <memory>

// Four stores meet when a cancel and a start run at the same time: Cancel 1, Running 0 here, and
// Cancel 0, Running 1 there. Each side looks once more at Cancel after its last store, and both see
// one order of all accesses (sequential consistency): the cancel that finds its 1 gone has been
// overtaken by a start, and repeats; the start that finds a 1 has been cancelled, and is not
// running.
void CancelChannel(const Channel& channel) {
    channel.Internals->Cancels.fetch_add(1);
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

bool HasUser(const Channel& channel, const CZAQSimpleBuffer* ring) {
    for (const RingUse* use = channel.Internals->Uses; use != nullptr; use = use->m_Next)
        if (use->m_Ring == ring)
            return true;
    return false;
}

namespace {

void ResetCounters(ChannelCounters& counters, uint32_t capacity) {
    constexpr auto relaxed = std::memory_order_relaxed;
    counters.HostBytes.store(0, relaxed);
    counters.NetworkBytes.store(0, relaxed);
    counters.Datagrams.store(0, relaxed);
    counters.Bytes.store(0, relaxed);
    counters.Dropped.store(0, relaxed);
    counters.SendFailures.store(0, relaxed);
    counters.ModeChanges.store(0, relaxed);
    counters.SocketsOpened.store(0, relaxed);
    counters.Capacity.store(capacity, relaxed);
}

// Puts both into the row and frees what was there, but for a ring that a host thread uses.
void Exchange(const Channel& channel, CZAQStreamTimer* timer, CZAQSimpleBuffer* ring) {
    ChannelCounters& counters = channel.Internals->Counters;
    {
        const zaq::MutexLock state(channel.Internals->State);
        const zaq::MutexLock intake(channel.Internals->Intake);
        // Release: whoever finds the pointer, with acquire, finds the object complete.
        timer = channel.Row->Timer.exchange(timer, std::memory_order_acq_rel);
        CZAQSimpleBuffer* const next = ring;
        ring = channel.Row->Buffer.exchange(ring, std::memory_order_acq_rel);
        if (ring != nullptr && HasUser(channel, ring))
            ring = nullptr;
        if (next != nullptr)
            ResetCounters(counters, next->GetBufferSize());
        else
            counters.Capacity.store(0, std::memory_order_relaxed);
    }
    delete ring;
    delete timer;
}

}  // namespace

void MakeObjects(const Channel& channel, uint32_t size) {
    auto timer = std::make_unique<CZAQStreamTimer>();
    auto ring = std::make_unique<CZAQSimpleBuffer>(size);
    Exchange(channel, timer.release(), ring.release());
}

void FreeObjects(const Channel& channel) {
    Exchange(channel, nullptr, nullptr);
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

StartGuard::~StartGuard() {
    if (m_Complete)
        return;
    m_Channel.Row->Running.store(0);
    FreeObjects(m_Channel);
}

RingUse::RingUse(const Channel& channel) : m_Channel(channel) {
    const zaq::MutexLock lock(channel.Internals->State);
    m_Ring = channel.Row->Buffer.load(std::memory_order_acquire);
    m_Next = channel.Internals->Uses;
    channel.Internals->Uses = this;
}

RingUse::~RingUse() {
    bool mustFree = false;
    {
        const zaq::MutexLock lock(m_Channel.Internals->State);
        RingUse** link = &m_Channel.Internals->Uses;
        while (*link != this)
            link = &(*link)->m_Next;
        *link = m_Next;
        if (m_Ring == m_Channel.Row->Buffer.load(std::memory_order_acquire))
            Add<uint64_t>(m_Channel.Internals->Counters.HostBytes, m_Bytes);
        else
            mustFree = !HasUser(m_Channel, m_Ring);
    }
    if (mustFree)
        delete m_Ring;
}
