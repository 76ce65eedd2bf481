// The channel's socket, and the configuration from which it is made.
#ifndef MODULE_CHANNELSOCKET_H
#define MODULE_CHANNELSOCKET_H

#include "Channel.h"

// Copies of the configuration while other threads and processes may be writing it. A torn copy is
// possible across processes; its writer sets Reopen afterwards, and the socket is then made again.
void LoadConfig(RtpChannelContext& record, RtpChannelConfig& config);
void StoreConfig(RtpChannelContext& record, const RtpChannelConfig& config);

// Does the address field have a NUL? A field without one is never read as text.
bool IsTerminated(const char (&address)[QXV_RTP_ADDRESS_SIZE]);

// Both are for the thread that owns the row's Socket at the time.

// Where the row has no socket that was made from the configuration as it stands, makes one in place
// of the old one, and clears Reopen, unless the configuration has changed meanwhile. False when
// there is no socket then: Reopen keeps its value.
bool RenewSocket(const Channel& channel);

// Destroys the row's socket, if there is one, and clears the field.
void CloseSocket(const Channel& channel);

#endif
