// The media delivery index (RFC 4445): how unevenly a stream's bytes come, and how many are lost.
#ifndef STREAMS_MEDIADELIVERY_H
#define STREAMS_MEDIADELIVERY_H

#include <cstdint>
#include <deque>
#include <optional>

#include "Shaper.h"
#include "TransportStream.h"

namespace ts {

struct MediaDeliveryReport {
    // Of the last whole second. The delay factor needs PCRs.
    std::optional<double> delayFactor_ms;
    double lossRate = 0.0;  // packets in a second
    // Of all seconds.
    double largestDelayFactor_ms = 0.0;
    double largestLossRate = 0.0;
    uint64_t lost = 0;
};

// The delay factor is the range through which a buffer goes that the datagrams fill and the
// stream's rate empties, as the time that the rate takes for it. The rate is that between two PCRs
// of one PID, so it may vary.
class MediaDelivery {
  public:
    // Positions are in bytes of packets. The PCRs within a datagram come before it.
    void clock(const Pcr& pcr, uint64_t position, Time arrival);
    void datagram(uint64_t begin, uint64_t end, Time arrival);
    void lost(uint64_t packets) { secondLost_ += packets; }
    // Where the stream has paused or begins anew, the buffer does, too.
    void restart();

    // True: a second is over, and its figures stand in the report.
    bool tick(Time now);
    const MediaDeliveryReport& report() const { return report_; }

  private:
    struct Arrival {
        uint64_t begin, end;
        int64_t time_ns;
    };
    void empty(uint64_t position, uint64_t ticks);
    void closeRange();

    std::optional<Pcr> last_;
    uint64_t position_ = 0;        // of the last PCR
    Time heard_{};                 // when it came
    int64_t media_ns_ = 0;         // its time, since the clock began
    std::deque<Arrival> waiting_;  // for the PCR behind them

    std::optional<Time> second_;  // when it began
    uint64_t secondLost_ = 0;
    std::optional<int64_t> least_ns_;  // of the buffer, in this second
    int64_t most_ns_ = 0;
    std::optional<int64_t> range_ns_;  // the largest before the clock began anew
    MediaDeliveryReport report_;
};

}  // namespace ts

#endif
