// One send channel, from the opening of its socket to its last datagram.
#ifndef TOOLS_ENGINE_SENDING_H
#define TOOLS_ENGINE_SENDING_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "base/StopSignal.h"
#include "engine/HostModule.h"
#include "engine/PacedStream.h"
#include "engine/SendSchedule.h"
#include "media/StreamUrl.h"

class Sending {
  public:
    using Report = std::function<void(const std::string& line)>;

    // `report` gets a line of progress a few times a second.
    Sending(PacedStream& stream, HostModule& module, uint32_t channel, const StreamUrl& url,
            bool followsStream, StopSignal& stop, Report report);

    // False when stopped by a signal. Throws Failure.
    bool run() { return waitForSocket() && feed() && pad() && drain() && confirm(); }

    std::string summary() const;
    // How often a channel that keeps its rate turned out to be too slow for the stream.
    uint64_t raises() const { return url_.rtp ? changes_ : 0; }

  private:
    using Clock = std::chrono::steady_clock;

    bool waitForSocket();
    bool feed();
    bool pad();
    bool drain();
    bool confirm();

    bool attend();
    void watchSocket();
    void watchDatagrams();
    void followStream();
    size_t due(size_t chunk);
    void changeBitrate(uint32_t bitrate_bps);
    void reportProgress();
    void measureRate();

    void hand(std::span<const uint8_t> data);
    uint64_t takenBytes() const;  // by the channel, from its buffer
    uint64_t sentDatagrams() const;
    std::chrono::milliseconds elapsed() const;

    PacedStream& stream_;
    const StreamUrl& url_;
    const bool followsStream_;  // by changes of the rate, or by feeding where the channel keeps it
    StopSignal& stop_;
    const Report report_;
    const size_t payload_;
    SendChannel channel_;
    SendSchedule schedule_;
    // Where feeding sets the pace: that of what is handed next, and when that was kept last.
    std::optional<PacedStream::Stretch> pace_;
    Clock::time_point looked_;
    Clock::time_point keptUp_;
    uint64_t handed_ = 0;
    uint64_t changes_ = 0;
    const Clock::time_point started_ = Clock::now();
    Clock::time_point reportDue_ = started_;
    Clock::time_point socketSeen_ = started_;
    Clock::time_point sentTime_ = started_;
    uint64_t sentSeen_ = 0;
    uint64_t takenThen_ = 0;
    Clock::time_point measuredAt_ = started_;
    uint64_t measuredBytes_ = 0;
    uint32_t measured_bps_ = 0;
};

#endif
