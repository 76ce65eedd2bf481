// Lets what is read from a file or a pipe leave as it is, at its own pace or at a given one.
#ifndef STREAMS_OWNPACE_H
#define STREAMS_OWNPACE_H

#include <deque>
#include <optional>

#include "PacketStore.h"
#include "Shaper.h"
#include "TransportStream.h"

namespace ts {

// This is for input that waits until it is read, so that it can be fed ahead; a Pacer is for what
// comes by itself. No byte is changed but for null packets behind the last one. Without a given
// rate, the stream is timed by its PCRs, evenly within each stretch of a tenth of a second; the
// first second shows the rate. What lies between the PCRs of two clocks (at a splice, or where they
// pass from one PID to another) is taken to flow at the rate of the rest of its stretch, so no jump
// of a clock makes a rate.
//
// Where the channel has to keep its rate, since a change would begin the sequence numbers of RTP
// anew, a stream of constant rate is timed by that rate, which its PCRs confirm. One that turns out
// to vary is timed by its PCRs from then on, and the rate is a ceiling, which rises when a stretch
// comes that is faster than all before.
class OwnPace : public Shaper {
  public:
    OwnPace(size_t packetSize, std::optional<uint32_t> bitrate_bps, bool keepsRate);

    void push(std::span<const uint8_t> packets, Time arrival) override;
    void finish() override;
    bool needsInput(Time until) const override;
    size_t pull(std::span<uint8_t> datagrams, Time until) override;
    std::optional<Time> next() const override;
    std::optional<uint32_t> rate() const override;
    ShaperStatus status() const override;

    // The rate is a ceiling only: the channel sends what it is fed at once.
    bool varies() const { return varies_; }

  private:
    // Where a stretch ends: bytes since the first packet, and the time they take.
    struct Point {
        uint64_t bytes = 0;
        Time time{0};
    };
    static double rateOf(const Point& begin, const Point& end);

    void follow(const uint8_t* packet);
    void endStretch(uint64_t bytes);
    const Point& last() const { return points_.empty() ? passed_ : points_.back(); }
    void measure();
    void raise(double bitrate_bps);
    bool isEven(const Point& point);
    Time timeOf(uint64_t byte) const;
    Time coveredTo() const;
    bool complete() const { return waiting_.size() >= datagramBytes_; }
    void passPoints();

    const size_t packetSize_;
    const size_t datagramBytes_;
    const bool isGiven_;  // whether the rate is
    const bool keepsRate_;
    std::optional<uint32_t> rate_bps_;
    bool linear_;  // by the rate alone
    bool varies_ = false;
    bool finished_ = false;

    PcrIntervals intervals_;
    uint64_t stretchTicks_ = 0;  // by the clocks, of the stretch that has not ended
    uint64_t stretchBytes_ = 0;  // which took that time

    PacketStore waiting_;
    uint64_t pulled_ = 0;  // bytes
    uint64_t pushed_ = 0;

    Time arrival_{0};
    std::optional<Time> silentSince_;  // when the first packets behind the last point came
    std::optional<Time> origin_;       // when the first byte leaves
    Point passed_;                     // the stretch that pulled_ lies in begins here
    std::deque<Point> points_;         // and ends at the first of these
    double stretch_bps_ = 0.0;         // of the stretch that ended last
    Point even_;                       // up to here, the constant rate has been confirmed
};

}  // namespace ts

#endif
