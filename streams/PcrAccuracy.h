// How exactly PCRs fit their places in a stream of constant rate.
#ifndef STREAMS_PCRACCURACY_H
#define STREAMS_PCRACCURACY_H

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "Shaper.h"

namespace ts {

// The PCRs of one PID are compared, a second of them at a time, with the straight line that fits
// them best: their bytes' places give the time by which they are due, whatever the network did.
//
// That means something in streams of constant rate only. A stream counts as one where most of its
// PCRs lie on the line; or where it has null packets, which only such streams need, and most of its
// PCRs keep within a millisecond of the line. Of others, nothing is said.
//
// The network may lose packets without a trace in any counter: null packets, or rare ones. All
// PCRs behind them are off by as much, so one such step in a second is forgiven. Those who drop or
// insert packets and leave the PCRs as they are do so more often.
class PcrAccuracy {
  public:
    explicit PcrAccuracy(Time limit);

    struct Verdict {
        bool constantRate;
        size_t wrong = 0;  // PCRs beyond the limit; 0 where the rate varies
        Time worst{0};     // as far from the line
    };
    // `ticks`: of 27 MHz since the PCR before. `nulls`: null packets of the stream so far.
    std::optional<Verdict> add(uint64_t ticks, uint64_t position, uint64_t nulls);
    // Bytes are missing, or another clock begins: what follows is another line.
    void cut() { points_.clear(), judged_ = false; }

  private:
    struct Point {
        double position, ticks;
    };
    using Points = std::span<const Point>;
    struct Line {
        double slope, offset;
        double stray;  // the median distance of the points
    };
    Line fit(Points points) const;
    Verdict compare(Points points, double slope, double offset) const;
    bool isOneStep() const;
    Verdict judge(bool hasNulls) const;

    double limit_;  // ticks
    std::vector<Point> points_;
    bool judged_ = false;  // the first point, as the last one of the second before
    uint64_t origin_ = 0;  // position of the first point
    uint64_t nulls_ = 0;   // at the first point
};

}  // namespace ts

#endif
