// From a file or a pipe to a send channel.
#ifndef TOOLS_ENGINE_SENDCHAIN_H
#define TOOLS_ENGINE_SENDCHAIN_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Excerpt.h"
#include "OwnPace.h"
#include "RateMeasures.h"
#include "TransportStream.h"
#include "engine/Chain.h"
#include "engine/ChannelOutput.h"
#include "engine/Jobs.h"
#include "engine/RateNeed.h"
#include "media/PacketSource.h"
#include "media/StreamUrl.h"

// Reads ahead, lets the shaper give each datagram its time, and keeps the channel's buffer filled a
// fraction of a second ahead, so that the channel's own thread sets the pace.
//
// An output that fails (no socket, no route) ends nothing: it is tried again, and a file goes on
// where it stopped, while what comes from a pipe is lost meanwhile. Only to begin with, there may
// be a limit to the patience.
class SendChain : public Chain {
  public:
    // Without `patience`, what cannot begin is tried for ever.
    SendChain(const SendJob& job, ModuleOnDemand& module,
              std::optional<std::chrono::milliseconds> patience);

    std::optional<Clock::time_point> run(Clock::time_point now) override;

    void cancel() override { output_.cancel(); }

    std::string name() const override;
    std::string describe(Clock::time_point now) override;
    std::string summary() const override;
    std::vector<std::string> warnings() const override;
    std::optional<std::string> unfinished() const override;
    StreamState state(Clock::time_point now) const override;

  private:
    ts::Time streamTime(Clock::time_point now) const { return now.time_since_epoch() - shift_; }
    std::string inputName() const;
    ts::Time lead() const;  // how far ahead the buffer is filled

    bool openInput(Clock::time_point now);
    bool prepareShaper();
    bool scanAhead();
    void read(ts::Time now, ts::Time until);
    void count(std::span<const uint8_t> packets);
    void endInput();
    void stayDown(Clock::time_point now);
    void feed(Clock::time_point now);
    void keepUp(Clock::time_point now);
    void resync(Clock::time_point now);
    bool varies() const { return ownPace_ != nullptr && ownPace_->varies(); }
    std::optional<Clock::time_point> drain(Clock::time_point now);
    Clock::time_point nextLook(Clock::time_point now) const;

    const SendJob job_;
    const StreamUrl url_;
    const std::optional<std::chrono::milliseconds> patience_;
    const bool isMadeConstant_;
    const bool follows_;  // the stream's rate, by changes of the channel's
    ChannelOutput output_;

    std::optional<PacketSource> source_;
    // A look at what of a file is to come, for the rate that it needs.
    struct Scan {
        Scan(const SendJob& job, size_t packetSize, std::chrono::milliseconds delay)
            : source(job.input, false),
              excerpt(packetSize, std::nullopt, job.start.value_or(std::chrono::milliseconds(0)),
                      job.duration),
              rate(packetSize, delay) {}

        PacketSource source;
        Excerpt excerpt;
        ts::RateScan rate;
        uint64_t bytes = 0;
        bool begun = false;
        bool done = false;
    };
    std::optional<Scan> scan_;
    uint32_t leastRate_bps_ = 0;  // that it has found
    std::optional<Excerpt> excerpt_;
    ContinuityCounter continuity_;  // of the input
    uint64_t loops_ = 0;            // of which it knows
    std::unique_ptr<ts::Shaper> shaper_;
    const ts::OwnPace* ownPace_ = nullptr;  // the shaper, where it is one
    RateNeed need_;
    bool inputOver_ = false;
    bool busy_ = false;  // more could be read at once

    uint32_t emptyLooks_ = 0;    // in a row, at a buffer that should not have been empty
    ts::Time shift_{0};          // how long the stream has been held up in all
    Clock::time_point lasts_{};  // when the last datagram in the buffer is due
    Clock::time_point drainedAt_{};

    const Clock::time_point started_ = Clock::now();
    Clock::time_point retry_ = started_;  // of the input
    bool inputReported_ = false;

    Clock::time_point measuredAt_ = started_;
    uint64_t measuredDatagrams_ = 0;
    uint32_t measured_bps_ = 0;
};

#endif
