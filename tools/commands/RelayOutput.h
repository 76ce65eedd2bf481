// A send channel that is fed at the pace at which the datagrams are to leave.
#ifndef TOOLS_COMMANDS_RELAYOUTPUT_H
#define TOOLS_COMMANDS_RELAYOUTPUT_H

#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <span>

#include "engine/HostModule.h"
#include "media/StreamUrl.h"
#include "terminal/Progress.h"

// The channel's own rate is only a ceiling, a little above the stream's: the channel sends what it
// is handed within a millisecond or two, and the pace is that of the feeding. Steering the pace by
// the channel's rate would begin its schedule anew each time, and with it, under RTP, the sequence
// numbers, which costs receivers that put datagrams in order all they take for late. So the ceiling
// changes only where the stream has another rate, or where it turns out to be too low.
//
// One that gets no datagrams rid holds up nobody else: it drops what it cannot take.
class RelayOutput {
  public:
    using Clock = std::chrono::steady_clock;

    // Throws Failure where the channel cannot be started. A fixed rate is never raised.
    RelayOutput(HostModule& module, uint32_t number, const StreamUrl& url, bool fixedRate,
                Progress& progress);

    const StreamUrl& url() const { return url_; }

    // The stream's rate, where it begins or goes on after a break.
    void setStreamRate(uint32_t bitrate_bps);

    // Takes one datagram of whole packets, or drops it.
    void hand(std::span<const uint8_t> datagram);

    // Ends the channel and starts it again, which finds out the size of the packets anew. Datagrams
    // are dropped while a channel ends whose socket could not be opened: that takes up to a second.
    void restart();

    // Stops sending, for good.
    void cancel();

    // To be called every few milliseconds. Throws Failure when no socket could be opened to begin
    // with; later on, a socket that is lost is only reported.
    void attend(Clock::time_point now);

    bool drained() const;
    uint32_t buffered_ms() const;
    uint64_t dropped() const { return dropped_; }
    uint64_t handed() const { return handed_; }
    uint64_t rateChanges() const { return rateChanges_; }

  private:
    void start();
    void setCeiling(uint64_t bitrate_bps);
    void watchSocket(Clock::time_point now);
    void watchBacklog();
    void reportDrops();
    uint64_t bytesIn(std::chrono::milliseconds time) const;

    HostModule& module_;
    const uint32_t number_;
    const StreamUrl& url_;
    const bool fixedRate_;
    Progress& progress_;                    // above which warnings stand
    std::unique_ptr<SendChannel> channel_;  // none while one ends
    std::future<void> ending_;
    uint32_t ceiling_bps_ = 0;  // 0: not known yet
    uint64_t handed_ = 0;       // datagrams, since the last start
    uint64_t dropped_ = 0;
    uint64_t droppedReported_ = 0;
    uint64_t rateChanges_ = 0;
    uint64_t handedBytes_ = 0;    // since nextLook_ was set
    uint64_t leastBuffered_ = 0;  // ... too
    Clock::time_point nextLook_ = Clock::now();
    Clock::time_point nextReport_ = nextLook_;
    Clock::time_point socketSeen_ = nextLook_;
    bool everOpen_ = false;
    bool lossReported_ = false;
};

#endif
