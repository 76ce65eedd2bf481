// The sixteen bytes behind a packet that let a receiver correct it (EN 300 421, 4.4.2).
#ifndef STREAMS_PARITY_H
#define STREAMS_PARITY_H

#include <cstdint>

namespace ts {

// Computes the Reed-Solomon code of the packet's 188 bytes into the 16 bytes behind them.
void writeParity(uint8_t* packet);

}  // namespace ts

#endif
