// One channel inside the module, and how it is found.
//
// These threads use a channel:
//   host threads     the exported functions, any of them at any time
//   transmit thread  one per started send channel (Transmit.cpp)
//   housekeeping     one thread per process (HouseKeeping.cpp)
//   intake           the socket library's thread, while a receive socket exists (Intake.cpp)
#ifndef MODULE_CHANNEL_H
#define MODULE_CHANNEL_H

#include "ChannelInternals.h"
#include "RtpContext.h"
#include "RtpContextExt.h"

// All of it is null when there is no such channel.
struct Channel {
    RtpChannelContext* Record = nullptr;
    RtpChannelContextExt* Row = nullptr;
    ChannelInternals* Internals = nullptr;
    uint32_t Direction = 0;
    uint32_t Number = 0;

    explicit operator bool() const { return Record != nullptr; }
    bool IsSend() const { return Direction == kSend; }
};

// The channel that the host's arguments name; none for a null handle and for a number out of range.
// There is one instance, so that the table's word for it, which other processes may overwrite, is
// not read.
Channel FindChannel(void* handle, uint32_t direction, uint32_t number);

// The channel of a record of the table, which a thread or a callback was given.
Channel FindChannel(RtpChannelContext* record);

#endif
