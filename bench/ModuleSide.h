// The module under measurement: each routine is the life of one child process that loads it.
#ifndef BENCH_MODULESIDE_H
#define BENCH_MODULESIDE_H

#include <string>

#include "Traffic.h"

// The shared library to load; every routine takes it from here.
void setModulePath(const std::string& path);

// Receives on the channels; one host thread reads all of them, once a millisecond.
void moduleReceive(Board& board, uint32_t channels);

// Sends on the channels; one host thread feeds all of them, every 40 ms.
void moduleSend(Board& board, Load load);

// Sends on one channel at a bitrate that no machine reaches; the host feeds it as fast as it takes.
void moduleSendUnpaced();

// Starts 0 to 16 channels in one direction and leaves them alone.
void moduleIdle(Board& board, uint32_t direction, uint32_t channels);

// Ends with values[0] = milliseconds from the load to the first handle.
void moduleLoadTime(Board& board);

// Ends with values[0], [1] = proportional and resident set per started channel, in KiB; [2], [3] =
// the same for the module without channels.
void moduleMemory(Board& board, uint32_t direction);

#endif
