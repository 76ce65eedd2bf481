// One channel inside the module: how it is found, and what keeps its threads apart.
//
// Who touches a channel
//   host threads     the exported functions, any of them at any time
//   transmit thread  one per started send channel (Transmit.cpp)
//   housekeeping     one per process (HouseKeeping.cpp)
//   intake           the socket library's thread, while a receive socket exists (Intake.cpp)
//
// Who may use the objects of the runtime row, and why they are not freed meanwhile
//   host threads, housekeeping   hold `State` while they use Timer or Buffer, and find null when it
//                                is gone; End takes the pointers out under `State`
//   transmit thread              End frees after it has joined the thread
//   intake                       holds `Intake` for one datagram; End takes the pointers out under it
//
// Lock order: Lifecycle, State, Intake, and then the stream timer's own. No lock is held while waiting
// for room or data. Cancelling takes none, so that a signal handler may do it.
#ifndef MODULE_CHANNEL_H
#define MODULE_CHANNEL_H

#include "RtpContext.h"
#include "RtpContextExt.h"
#include "ThreadSafety.h"

struct ChannelLocks {
    // Held over a whole start or end and, on receive channels, while housekeeping opens a socket:
    // a socket that is being opened is neither lost nor left to a channel that has ended.
    zaq::Mutex Lifecycle ZAQ_ACQUIRED_BEFORE(State);
    // Held for moments: groups of stores to flags, pointers and configuration that belong together,
    // and the use of Timer or Buffer by host threads and housekeeping.
    zaq::Mutex State ZAQ_ACQUIRED_BEFORE(Intake);
    // Held by the intake. Our own socket library runs one callback at a time and none after the
    // socket is destroyed, and then nobody ever waits here; another library might let a callback
    // finish after Destroy, when the channel has been ended or has another socket.
    zaq::Mutex Intake;
    // A reference to this library while the channel is started, see LibraryReference.
    void* Library ZAQ_GUARDED_BY(Lifecycle) = nullptr;
};

// Record, runtime row and locks of one channel; all of them null when there is no such channel.
struct Channel {
    RtpChannelContext* Record = nullptr;
    RtpChannelContextExt* Row = nullptr;
    ChannelLocks* Locks = nullptr;

    explicit operator bool() const { return Row != nullptr; }
};

// The record that the host's arguments mean; null for a null handle or a number out of range.
RtpChannelContext* FindRecord(void* handle, uint32_t direction, uint32_t channel);

// The same with the row. Rows exist for instance 0 only; the table may have been made by another
// process, so its instance is not taken at its word.
Channel FindChannel(void* handle, uint32_t direction, uint32_t channel);

// The channel's State lock alone, for what concerns the table and not the row.
zaq::Mutex& StateLock(uint32_t direction, uint32_t channel);

// The channel to which a record belongs that a thread or a callback was handed.
Channel FindChannel(RtpChannelContext* record);

// Raises Cancel and clears Running. A cancel that meets a start comes before or after all of it.
void CancelChannel(const Channel& channel);

// Keeps this library loaded. Each started channel has a reference, since its threads run the library's
// code: a host that unloads the module too early drops its own reference only, and gets the channels
// back with the next load. Where there is none to be had, a host that ends its channels lacks nothing.
//
// Made before and dropped after the channel is locked, for both take the loader's lock, under which
// other libraries' constructors may be calling the module.
class LibraryReference {
  public:
    constexpr LibraryReference() = default;
    static LibraryReference ToThis();
    LibraryReference(const LibraryReference&) = delete;
    LibraryReference& operator=(const LibraryReference&) = delete;
    ~LibraryReference();
    // The channel gets this one, and this its earlier one.
    void Exchange(const Channel& channel) ZAQ_REQUIRES(channel.Locks->Lifecycle);

  private:
    constexpr explicit LibraryReference(void* handle) : m_Handle(handle) {}
    void* m_Handle = nullptr;
};

// The last step of a start.
void SetRunning(const Channel& channel);

// Takes timer and ring buffer out of the row, so that host threads, housekeeping and the intake do not
// find them any more and have stopped using them, and frees them. The transmit thread must have ended
// before.
void FreeObjects(const Channel& channel) ZAQ_EXCLUDES(channel.Locks->State);

// Puts a new timer and a new, empty ring buffer into the row. An allocation failure propagates;
// what was made by then stays in the row and is freed by the next start or end.
void MakeObjects(const Channel& channel, uint32_t bufferSize);

// Waits for the thread in the row's slot, if there is one, and deletes it.
void JoinThread(const Channel& channel);

// Sets the numbers of a channel that starts, and asks for its socket.
void InitStatus(RtpChannelContext& record, uint32_t bitrate, uint32_t bufferSize);

// Clears what the table tells of a started channel.
void ClearStatus(RtpChannelContext& record);

// Copies of the configuration while other threads and processes may be writing it. A torn copy is
// possible across processes, and is put right when its writer sets Reopen.
void LoadConfig(RtpChannelContext& record, RtpChannelConfig& config);
void StoreConfig(RtpChannelContext& record, const RtpChannelConfig& config);

// Does the address field have a NUL? One without is not handed to anybody who reads up to it.
bool IsTerminated(const char (&address)[QXV_RTP_ADDRESS_SIZE]);

// Makes the channel's socket from the configuration as it stands, stores it in the row, and clears
// Reopen unless the configuration has changed meanwhile. False when there is none: Reopen keeps its
// value then. The caller owns the row's Socket at the time.
bool OpenSocket(const Channel& channel) ZAQ_EXCLUDES(channel.Locks->State);

// Destroys the row's socket, if there is one, and clears the field.
void CloseSocket(const Channel& channel);

#endif
