// What a start makes and an end takes away: the flags, timer, ring and thread in the runtime row,
// and the numbers in the table.
//
// These threads use the objects, and this keeps an object from being freed meanwhile:
//   host threads, with the ring       hold a RingUse; the last one frees a ring that was taken out
//   host threads, housekeeping, with  hold `State`, under which the timer is taken out
//     the timer
//   transmit thread                   it is joined before the objects are taken out
//   intake                            holds `Intake`, under which the objects are taken out
#ifndef MODULE_CHANNELOBJECTS_H
#define MODULE_CHANNELOBJECTS_H

#include "Channel.h"

// Raises Cancel and clears Running. A cancel that meets a start comes before or after all of it.
void CancelChannel(const Channel& channel);

// The last step of a start. Running stays 0 where the channel was cancelled meanwhile.
void SetRunning(const Channel& channel);

// Puts a new timer and a new, empty ring of `size` bytes into the row and sets the counters to
// zero. Earlier objects are freed only then, so that a Send or Receive that waits finds the one
// ring or the other. An allocation failure propagates and leaves the row as it was.
void MakeObjects(const Channel& channel, uint32_t size);

// Takes timer and ring out of the row and frees them. The transmit thread must have ended before.
void FreeObjects(const Channel& channel);

// Waits for the thread in the row, if there is one, and deletes it. Something must have told it to
// end.
void JoinThread(const Channel& channel);

// Sets the numbers of a channel that starts, or to 0 those of one that ends, and requests a socket.
void InitStatus(RtpChannelContext& record, uint32_t bitrate, uint32_t bufferSize);

// Undoes a start that throws, so that the channel has no objects and no thread, as after its end.
// The numbers in the table stay as the start has written them.
class StartGuard {
  public:
    explicit StartGuard(const Channel& channel) : m_Channel(channel) {}
    StartGuard(const StartGuard&) = delete;
    StartGuard& operator=(const StartGuard&) = delete;
    ~StartGuard();
    void Complete() { m_Complete = true; }

  private:
    const Channel& m_Channel;
    bool m_Complete = false;
};

// A host thread's use of the channel's ring, for one copy. No lock is held meanwhile: the host's
// page may not be there, and nobody else shall wait for it. Where the ring is taken out of the row
// during the use, its last user frees it.
class RingUse {
  public:
    explicit RingUse(const Channel& channel) ZAQ_EXCLUDES(channel.Internals->State);
    RingUse(const RingUse&) = delete;
    RingUse& operator=(const RingUse&) = delete;
    ~RingUse();

    CZAQSimpleBuffer* Ring() const { return m_Ring; }  // null when the channel has none
    void Count(uint32_t bytes) { m_Bytes += bytes; }   // that were moved

  private:
    friend bool HasUser(const Channel& channel, const CZAQSimpleBuffer* ring)
        ZAQ_REQUIRES(channel.Internals->State);

    const Channel& m_Channel;
    CZAQSimpleBuffer* m_Ring = nullptr;
    uint32_t m_Bytes = 0;
    RingUse* m_Next = nullptr;  // in the channel's list; guarded by `State`
};

#endif
