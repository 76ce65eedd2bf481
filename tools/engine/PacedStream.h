// What a channel is to send of an input, and at which pace.
#ifndef TOOLS_ENGINE_PACEDSTREAM_H
#define TOOLS_ENGINE_PACEDSTREAM_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "RateFollower.h"
#include "TransportStream.h"
#include "base/StopSignal.h"
#include "engine/Jobs.h"
#include "media/PacketSource.h"

// The packets from the job's start on, for its duration. Without a bitrate given, they are read
// ahead: a second or more, to know the rate to begin with, and all the time, to know the pace of
// what is handed out. What a channel sends whose rate must not change is read ahead by more.
class PacedStream {
  public:
    // Opens the input; throws as PacketSource does.
    PacedStream(const SendJob& job, bool keepsRate);

    // Finds the packets, goes to the start and reads ahead. Throws Failure where that cannot be
    // done; returns early when a stop is requested.
    void open(StopSignal& stop);

    const PacketSource& source() const { return source_; }
    // To begin with: the stream's rate or, where it varies and the channel keeps its rate, a
    // ceiling.
    uint32_t bitrate() const { return bitrate_bps_; }

    // What has been read so far does not have the rate that was measured to begin with. Told only
    // where the channel keeps its rate.
    bool varies() const { return varies_; }

    // As PacketSource's.
    std::span<const uint8_t> take(size_t limit, std::chrono::milliseconds wait);
    bool ended() const { return inputEnded() && available() == 0; }

    // From where to where the pace is even. Bytes and times count from the start.
    struct Stretch {
        RateFollower::Point begin;
        RateFollower::Point end;
    };
    // The one in which the byte lies; none where that is not known (yet).
    std::optional<Stretch> stretch(uint64_t byte);

    // A higher ceiling, which lets pass what is read ahead behind the last stretch that was asked
    // for.
    uint32_t raise();

  private:
    size_t available() const { return ahead_.size() - begin_; }
    bool inputEnded() const { return complete_ || source_.ended(); }
    bool knowsRate() const;
    bool knowsPaceOf(uint64_t bytes) const;
    void measure(StopSignal& stop);
    void goToStart(StopSignal& stop);
    void readAhead(size_t limit, std::chrono::milliseconds wait);
    void add(std::span<const uint8_t> packets);
    void notePoint();

    const std::optional<uint32_t> given_bps_;
    const bool keepsRate_;
    const std::chrono::nanoseconds start_;
    const std::optional<std::chrono::nanoseconds> duration_;
    PacketSource source_;
    uint32_t bitrate_bps_ = 0;
    std::optional<StreamTime> time_;        // of the input, where start or duration ask for it
    std::optional<RateFollower> follower_;  // of what is handed out
    std::optional<RateFollower> steady_;    // by the second, where the channel keeps its rate
    bool varies_ = false;
    bool complete_ = false;  // the duration is over
    bool finished_ = false;  // the last point was noted
    std::vector<uint8_t> ahead_;
    size_t begin_ = 0;  // of what is ahead
    uint64_t taken_ = 0;
    RateFollower::Point passed_;
    std::deque<RateFollower::Point> points_;
};

#endif
