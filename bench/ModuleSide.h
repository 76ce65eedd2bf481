// The module under measurement: each routine is the life of one child process that loads it.
#ifndef BENCH_MODULESIDE_H
#define BENCH_MODULESIDE_H

#include <string>

#include "Traffic.h"

// The shared library to load; every routine takes it from here.
void setModulePath(const std::string& path);

// Receives on the channels; one host thread reads all of them, once a millisecond.
void moduleReceive(Board& shared, Load load);
// The same, once every 10 ms.
void moduleReceiveSlowly(Board& shared, Load load);

// Sends on the channels; one host thread feeds all of them, every 40 ms.
void moduleSend(Board& shared, Load load);

// Sends on one channel that is far behind its schedule: the host has left it without data for
// seconds and then feeds it as fast as it takes. A bitrate alone does not do, as 32 bits of it are
// reached.
void moduleSendUnpaced(Board& shared, Load load);

// Starts channels and leaves them alone.
void moduleIdle(Board& shared, uint32_t sendChannels, uint32_t receiveChannels);

// Ends with the result: milliseconds from the load to the first handle.
void moduleLoadTime(Board& shared);

#endif
