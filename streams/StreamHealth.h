// Whether a stream is fit to be sent on, as it arrives.
#ifndef STREAMS_STREAMHEALTH_H
#define STREAMS_STREAMHEALTH_H

#include <array>
#include <cstdint>
#include <span>

#include "Alarms.h"
#include "StreamAnalyzer.h"
#include "Tr101290.h"

namespace ts {

enum class Health : uint8_t { kNone, kIll, kWell };

// A stream has no signal when no packets have come for `patience`. It is ill while it lacks what a
// receiver needs by the first priority of ETSI TR 101 290 (the PAT, a PMT, a PID of video, audio or
// PCRs), or where packets keep missing or come damaged: in three out of ten parts of time, each a
// third of the patience. So a fault that lasts shows as soon as silence does, and a single one does
// not count. A stream that never had a PAT is judged by its packets alone, and so is one that comes
// in bursts more than 200 ms apart: when its tables are due does not show.
//
// One thread uses an object.
class StreamHealth {
  public:
    explicit StreamHealth(Time patience);
    StreamHealth(const StreamHealth&) = delete;
    StreamHealth& operator=(const StreamHealth&) = delete;

    // What has come, be it packets or not, cut anywhere. It counts with the next tick.
    void push(std::span<const uint8_t> bytes, Time arrival);
    // At least every 100 ms, since what is missing shows by time alone.
    void tick(Time now);

    Health state() const { return state_; }
    Check fault() const { return fault_; }   // why it was not well last
    Time heard() const { return arrival_; }  // when the last packets came

  private:
    static constexpr size_t kFaultyParts = 3;
    static constexpr std::array kSingle{Check::kSyncLoss, Check::kSyncByte, Check::kContinuity,
                                        Check::kTransport};

    Health judge(Time now);

    const Time patience_;
    Alarms alarms_;
    Tr101290 transport_;
    StreamAnalyzer analyzer_;
    Health state_ = Health::kNone;
    Check fault_ = Check::kNoSignal;
    uint64_t packets_ = 0;
    Time arrival_{};  // of the last packets
    Time looked_{};   // when what is missing was looked for last
    std::array<uint64_t, kSingle.size()> counts_{};
    Check damage_ = Check::kContinuity;  // the last single fault
    std::array<Time, kFaultyParts>
        faulty_;  // when the last parts with faults began, the newest first
};

}  // namespace ts

#endif
