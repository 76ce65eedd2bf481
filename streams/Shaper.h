// Packets go in as they come, datagrams come out when they are due.
#ifndef STREAMS_SHAPER_H
#define STREAMS_SHAPER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace ts {

// Since any fixed moment, which is the same for all calls to an object. It never goes back.
using Time = std::chrono::nanoseconds;

// Whether a shaper may wait for input. A file is there when it is read; live input comes when it
// comes, and the output goes on meanwhile. A pipe counts as live.
enum class InputKind { kFile, kLive };

struct ShaperStatus {
    bool rateKnown = false;
    uint32_t rate_bps = 0;        // at which the datagrams flow, all bytes of the packets counted
    uint32_t rateNeeded_bps = 0;  // not 0: rate_bps is too low; this one would have done so far
    Time delay{0};                // between the packets' own time and their departure, of late
    uint64_t added = 0;           // packets that were put in
    uint64_t breaks = 0;          // where the time of a live stream began anew
    uint64_t dropped = 0;         // packets, null packets not counted; what came was too much
    bool untouched = false;       // every byte goes out as it came in
};

// Gives each packet the moment at which it leaves, which may change the packet.
//
// All packets have the size that the constructor was given: 188, or 204 with parity bytes. Seven of
// them, which lie one behind the other, are a datagram. An object holds no descriptor and no clock:
// the caller passes all bytes and times. One thread uses an object at a time. No function blocks;
// only push() and pull() take time that depends on how much there is.
class Shaper {
  public:
    virtual ~Shaper() = default;

    // Adds whole packets, in order, which came at `arrival`. They are copied.
    virtual void push(std::span<const uint8_t> packets, Time arrival) = 0;

    // The input has ended. What is left becomes due in its turn, the last datagram being filled up
    // with packets that carry nothing. Nothing is pushed after that.
    virtual void finish() = 0;

    // Whether input is missing to know all that is due by `until`. Whoever can choose when to read
    // (a file, a pipe that is filled faster than it is played) reads while this holds, so that
    // little is held in memory.
    virtual bool needsInput(Time until) const = 0;

    // Writes the datagrams that are due by `until`, as many as fit the room, each of seven packets,
    // one behind the other. `until` may lie in the future, by as much as the caller feeds ahead.
    // Returns the bytes that were written.
    virtual size_t pull(std::span<uint8_t> datagrams, Time until) = 0;

    // When the next datagram is due, as far as this is known. None: input has to come first or,
    // after finish(), nothing is left. At that time, pull() may give none after all, since the
    // shaper drops what is left then; so ask again.
    virtual std::optional<Time> next() const = 0;

    // The rate in bits per second that the channel has to have. It is not known before some of the
    // input has been seen, and nothing is due before it is known.
    virtual std::optional<uint32_t> rate() const = 0;

    virtual ShaperStatus status() const = 0;
};

}  // namespace ts

#endif
