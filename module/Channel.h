// One channel inside the module, and how it is found.
//
// These threads use a channel:
//   host threads     the exported functions, any of them at any time
//   transmit thread  one per started send channel (Transmit.cpp)
//   housekeeping     one thread per process (HouseKeeping.cpp)
//   intake           the socket library's thread, while a receive socket exists (Intake.cpp)
#ifndef MODULE_CHANNEL_H
#define MODULE_CHANNEL_H

#include "Module.h"
#include "ThreadSafety.h"

// What has happened since the channel was started. Each number has one writer at a time, so that it
// needs no read-modify-write; QXV_RTP_GetStatistics reads all of them without a lock.
struct ChannelCounters {  // NOLINT(clang-analyzer-optin.performance.Padding)
    // Size of the ring in bytes, 0 while there is none. Written under `State`.
    std::atomic<uint32_t> Capacity{0};
    std::atomic<uint64_t> HostBytes{0};  // that Send stored or Receive took; written under `State`

    // Written by the transmit thread, or by the intake under `Intake`; on cache lines of their own,
    // since they change with every datagram.
    alignas(128) std::atomic<uint64_t> NetworkBytes{0};  // taken from the ring, or stored there
    std::atomic<uint64_t> Datagrams{0};                  // sent, or stored
    std::atomic<uint64_t> Bytes{0};                      // their payload
    std::atomic<uint64_t> Dropped{0};
    std::atomic<uint64_t> SendFailures{0};
    std::atomic<uint64_t> ModeChanges{0};
    std::atomic<uint64_t> SocketsOpened{0};  // written by the thread that opens the socket
};

inline void Add(std::atomic<uint64_t>& counter, uint64_t count) {
    // Release: whoever reads this number with acquire finds the ring's position moved by as much.
    counter.store(counter.load(std::memory_order_relaxed) + count, std::memory_order_release);
}

// A host thread that is copying bytes into a ring or out of it.
struct RingUser {
    CZAQSimpleBuffer* Ring;
    RingUser* Next;
};

// What a channel needs in this process beside its runtime row.
//
// Lock order: Lifecycle, State, Intake, and then the stream timer's own. No lock is held while a
// thread waits for room or data, nor while it touches the host's memory: a page of that may take
// for ever to arrive. Cancelling takes no lock, so that a signal handler may do it.
struct ChannelInternals {
    // Held over a whole start or end and, on receive channels, while housekeeping opens a socket:
    // so a socket that is being opened is neither lost nor left to a channel that has ended.
    zaq::Mutex Lifecycle ZAQ_ACQUIRED_BEFORE(State);
    // Held for moments: for groups of stores to pointers and configuration that belong together,
    // and by the transmit thread, host threads and housekeeping while they use the timer.
    zaq::Mutex State ZAQ_ACQUIRED_BEFORE(Intake);
    // Held by the intake for a datagram, and by an end that frees the objects of an open socket.
    // Another socket library might also let a callback finish after Destroy.
    zaq::Mutex Intake;

    RingUser* Users ZAQ_GUARDED_BY(State) = nullptr;  // a list
    bool IsUsed(const CZAQSimpleBuffer* ring) const ZAQ_REQUIRES(State) {
        const RingUser* user = Users;
        while (user != nullptr && user->Ring != ring)
            user = user->Next;
        return user != nullptr;
    }

    uint32_t Schedule ZAQ_GUARDED_BY(State) = 0;  // of the timer: every new bitrate begins one

    // How often the host has cancelled the channel: a start that follows may clear Cancel before a
    // transfer that waits looks at it.
    std::atomic<uint32_t> Cancels{0};

    // Tells the transmit thread to end, like Cancel, where a start replaces it: a Send that waits
    // must not see a cancel. Written under `Lifecycle`.
    std::atomic<bool> StopThread{false};

    ChannelCounters Counters;
};

// All of it is null when there is no such channel.
struct Channel {
    RtpChannelContext* Record = nullptr;
    RtpChannelContextExt* Row = nullptr;
    ChannelInternals* Internals = nullptr;
    uint32_t Direction = 0;

    explicit operator bool() const { return Record != nullptr; }
    bool IsSend() const { return Direction == kSend; }
};

// The channel that the host's arguments name; none for a null handle and for a number out of range.
// The table's Instance, which other processes may overwrite, is not read: there is only one.
Channel FindChannel(void* handle, uint32_t direction, uint32_t number);

// The channel of a record of the table, which a thread or a callback was given.
Channel FindChannel(RtpChannelContext* record);

// Both are for the thread that owns the row's Socket at the time.

// Where the row has no socket that was made from the configuration as it stands, makes one in place
// of the old one, and clears Reopen, unless the configuration has changed meanwhile. False when
// there is no socket then: Reopen keeps its value.
bool RenewSocket(const Channel& channel);

// Destroys the row's socket, if there is one, and clears the field.
void CloseSocket(const Channel& channel);

#endif
