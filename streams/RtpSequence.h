// RTP as a receiver sees it (RFC 3550): what is missing, late or double, and how evenly it comes.
#ifndef STREAMS_RTPSEQUENCE_H
#define STREAMS_RTPSEQUENCE_H

#include <bitset>
#include <cstdint>
#include <optional>
#include <span>

#include "Shaper.h"

namespace ts {

struct RtpDatagram {
    uint8_t payloadType;
    uint16_t sequence;
    uint32_t timestamp;
    uint32_t ssrc;
    std::span<const uint8_t> payload;  // without contributing sources, extension and padding
};

// None: it is not RTP with packets of a transport stream.
std::optional<RtpDatagram> readRtp(std::span<const uint8_t> datagram);

// Whether the timestamps go on with the time that passed. Then the stream does, however far apart
// its numbers are, for a sender that was restarted begins with a random timestamp.
bool timestampsGoOn(uint32_t from, uint32_t to, Time passed);

struct RtpCounts {
    uint64_t received = 0;   // duplicates, too
    uint64_t lost = 0;       // what has not come within 100 to 200 ms; less if it comes later
    uint64_t reordered = 0;  // came behind one with a higher number
    uint64_t furthest = 0;   // by how many places
    uint64_t duplicates = 0;
    uint64_t ssrcChanges = 0;
    uint64_t restarts = 0;  // the numbers began elsewhere
    uint64_t breaks = 0;    // another than the next number came, duplicates aside
    uint64_t everLost = 0;  // as lost, with those that came later
};

// The sequence of one source. It counts into the counts of all.
class RtpSequence {
  public:
    enum class Place { kNext, kLate, kDuplicate };
    Place add(const RtpDatagram& datagram, Time arrival, RtpCounts& counts);

    // Counts what is missing as lost when its time is over.
    void settle(Time now, RtpCounts& counts);

    uint32_t ssrc() const { return ssrc_; }
    double jitter_ms() const { return jitter_ / 90.0; }
    // Ticks of the timestamps in a second of the arrival: 90,000, were it not for the clocks.
    std::optional<double> timestampRate() const;

  private:
    static constexpr int64_t kWindow = 1024;  // sequence numbers that are remembered

    void begin(const RtpDatagram& datagram, Time arrival);
    void settleTo(int64_t number, RtpCounts& counts);
    static void countLost(uint64_t datagrams, RtpCounts& counts);
    void measure(const RtpDatagram& datagram, Time arrival);

    bool begun_ = false;
    uint32_t ssrc_ = 0;
    int64_t first_ = 0;
    int64_t highest_ = 0;
    int64_t settled_ = 0;  // up to here, what is missing has been counted
    int64_t mark_ = 0;     // the highest when the time was looked at last
    Time marked_{};
    std::optional<uint16_t> elsewhere_;  // follows a number that was far off
    std::bitset<kWindow> received_;

    double jitter_ = 0.0;  // ticks
    uint32_t timestamp_ = 0;
    Time arrival_{};
    int64_t ticks_ = 0;  // since the first timestamp
    Time firstArrival_{};
};

}  // namespace ts

#endif
