// The outputs of a relay that are sent the same bytes.
#ifndef TOOLS_ENGINE_RELAYBRANCH_H
#define TOOLS_ENGINE_RELAYBRANCH_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Shaper.h"
#include "engine/ChannelOutput.h"
#include "engine/Jobs.h"
#include "engine/RateNeed.h"

// Gives the packets of the input their times, and feeds the outputs. Where the times are this
// machine's, the channels have the stream's rate and are fed a little ahead. A stream that keeps
// its own clock would in time run away from such a channel: over udp://, the channel's rate is
// changed then, by a little and for a moment. Over rtp://, each change would begin the sequence
// numbers anew; there the channel's rate is a ceiling just above the stream's, and the channel
// sends what it is fed at once.
//
// An output that gets rid of nothing holds up nobody else: it loses what it cannot take. One thread
// uses an object.
class RelayBranch {
  public:
    using Clock = Chain::Clock;

    // `rtp` outputs, or raw ones. The events go to the chain's.
    RelayBranch(const RelayJob& job, bool rtp, std::vector<std::string>& events);

    void add(const StreamUrl& url, ChannelNumber number, ModuleOnDemand& module);

    // Whole packets, which came now.
    void push(std::span<const uint8_t> packets, size_t packetSize, Clock::time_point now);

    // The input has paused: the end of what has come does not wait for it to go on. Null packets
    // fill the last datagram. An output of constant rate goes on with null packets. To be called
    // for as long as the pause lasts.
    void pause();

    // Does what is to be done by now, and returns when there will be more.
    Clock::time_point run(Clock::time_point now);

    void cancel();
    // Why no output works; empty: one does.
    std::string trouble() const;

    struct Figures {
        ts::ShaperStatus stream;
        ts::Time buffered{0};  // in the fullest ring
        uint64_t dropped = 0;  // datagrams
        uint64_t rateChanges = 0;
        size_t down = 0;  // outputs that do not work
    };
    Figures figures() const;
    void addStates(std::vector<OutputState>& outputs) const;

  private:
    struct Output {
        Output(const StreamUrl& url, ChannelNumber number, ModuleOnDemand& module,
               const Announcing& announcing, std::vector<std::string>& events)
            : channel(url, std::move(number), module, std::nullopt, announcing, events) {}

        ChannelOutput channel;
        bool works = false;
        bool worked = false;  // before its channel was ended
        ts::Time leastBuffered{0};
        uint64_t lookedAt = 0;  // bytes that had been handed over at the last look
        uint64_t dropped = 0;
        uint64_t droppedReported = 0;
    };
    enum class Pace { kSteered, kExact, kCeiling };
    // A channel looks at the size of packets once. Where it changes, the packets of the old size
    // leave in their time (kEnding), the rings run empty (kDraining), and the channels are started
    // again (kStarting). What comes meanwhile waits; the size may change again in it.
    enum class State { kSending, kEnding, kDraining, kStarting };
    struct Waiting {
        size_t packetSize;
        Clock::time_point arrival;
        std::vector<uint8_t> packets;
    };

    void makeShaper();
    void take(std::span<const uint8_t> packets, Clock::time_point arrival);
    void takeWaiting();
    void wait(std::span<const uint8_t> packets, size_t packetSize, Clock::time_point arrival);
    void release();
    void enter(State state, Clock::duration longest);
    void advance(Clock::time_point now);
    void endChannels();
    void attend(Output& output, Clock::time_point now);
    void settleRate();
    double wantedRate() const;
    ts::Time lead() const;
    void feed(Clock::time_point now);
    void hand(std::span<const uint8_t> datagrams);
    void keepUp(Output& output, Clock::time_point now);
    void lookBack(Output& output, Clock::time_point now);

    const RelayJob& job_;
    const bool rtp_;
    const bool isMadeConstant_;
    const bool varies_;      // or may do so
    const ts::Time window_;  // for which the input may hold something up
    std::vector<std::string>& events_;
    std::list<Output> outputs_;
    size_t packetSize_ = 0;
    std::unique_ptr<ts::Shaper> shaper_;  // none while the input pauses
    bool rateSettled_ = false;            // the channels have it
    RateNeed need_;
    Pace pace_ = Pace::kSteered;
    State state_ = State::kSending;
    Clock::time_point stateEnds_{};  // at the latest
    std::deque<Waiting> waiting_;
    size_t waitingBytes_ = 0;
    Clock::time_point nextLook_ = Clock::now();
    Clock::time_point nextReport_ = nextLook_;
    uint64_t rateChanges_ = 0;     // of channels that have been ended
    uint64_t packetsDropped_ = 0;  // by shapers that have been ended
};

#endif
