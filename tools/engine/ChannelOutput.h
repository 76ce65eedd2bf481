// A send channel that is kept fed, and that survives outages.
#ifndef TOOLS_ENGINE_CHANNELOUTPUT_H
#define TOOLS_ENGINE_CHANNELOUTPUT_H

#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Shaper.h"
#include "engine/Chain.h"
#include "engine/HostModule.h"
#include "media/Announcement.h"
#include "media/HostNames.h"
#include "media/StreamUrl.h"

// No function waits. An output that fails (no socket, no route) is tried again for as long as it
// takes, which its user learns from two events: when it has lasted, and when it is over.
//
// One thread uses it.
class ChannelOutput {
  public:
    using Clock = Chain::Clock;

    // The events go to the chain's, which outlive the object, as the module does. Only what does
    // not even begin within the patience, where there is one, throws Failure.
    ChannelOutput(const StreamUrl& url, ChannelNumber number, ModuleOnDemand& module,
                  std::optional<std::chrono::milliseconds> patience, Announcing announcing,
                  std::vector<std::string>& events);

    const StreamUrl& url() const { return url_; }

    // Starts the channel; false: not yet, try again at retry(). The ring has `ringBytes` at least,
    // and a quarter of a second of the rate.
    bool start(Clock::time_point now, uint32_t rate_bps, uint32_t ringBytes);
    bool isStarted() const { return channel_ != nullptr; }
    Clock::time_point retry() const { return retry_; }

    // Of the packets that are handed over from now on.
    void setPacketSize(size_t bytes);

    enum class Look {
        kWorks,
        kCameBack,  // and works: what is in the ring leaves from now on
        kDown,
        kStopped,  // by itself: it has to be started again
    };
    // To be called before each turn of handing over.
    Look watch(Clock::time_point now);
    bool isDown() const { return downSince_.has_value(); }
    bool isReportedDown() const { return downReported_; }
    const std::string& trouble() const { return trouble_; }  // why it was down last

    // While it is down: where sockets open but nothing leaves, a datagram of null packets finds out
    // whether that has changed.
    void probe(Clock::time_point now);
    // What was left out meanwhile; the event of its return tells.
    void countLost(uint64_t datagrams) { lost_ += datagrams; }

    // At most room() bytes of whole packets.
    void hand(std::span<const uint8_t> data);
    // Hands over null packets behind a stream that is too short for the channel to start sending.
    void handEnough();
    size_t room() const { return state_.FreeBytes; }
    uint64_t handed() const { return handed_; }  // bytes, since the start
    size_t payload() const { return payload_; }  // bytes of a datagram

    // As of the last look, and what was handed over since.
    const QXV_RTP_Statistics& state() const { return state_; }
    bool isEmpty() const { return state_.BufferedBytes < payload_; }
    // The last datagram is counted a moment after it was taken from the ring.
    bool allHasLeft() const { return state_.Datagrams + state_.SendFailures >= handed_ / payload_; }
    ts::Time buffered() const { return timeOf(state_.BufferedBytes); }
    uint64_t datagrams() const { return channel_ ? channel_->datagrams() : 0; }
    OutputState outputState() const;

    uint32_t rate() const { return rate_bps_; }
    void setRate(double bitrate_bps);
    ts::Time timeOf(uint64_t bytes) const;  // at the channel's rate

    // Chooses the rate at which what is in the ring is gone when what follows is due, which is
    // after `left`; at the stream's rate once that is so.
    void steer(ts::Time left, double stream_bps);
    bool isCatchingUp() const { return catchingUp_; }
    uint64_t rateChanges() const { return rateChanges_; }  // since the start
    void countRateChange() { ++rateChanges_; }

    // Stops sending, for good, and takes back what was announced.
    void cancel();
    // Ends the channel, so that it can be started again.
    void end();

  private:
    void handNullPackets();
    void goDown(Clock::time_point now, const std::string& why);
    void comeBack(Clock::time_point now);

    const StreamUrl url_;
    const ChannelNumber number_;
    ModuleOnDemand& module_;
    const std::optional<std::chrono::milliseconds> patience_;
    const Announcing announcing_;
    std::vector<std::string>& events_;
    LookUp addresses_;
    std::optional<Announcement> announcement_;  // once the channel was started

    std::unique_ptr<SendChannel> channel_;
    std::future<void> ending_;
    QXV_RTP_Statistics state_{};  // of the channel, when it was looked at last
    size_t packetSize_;
    size_t payload_;
    uint32_t rate_bps_ = 0;
    uint64_t handed_ = 0;
    uint64_t rateChanges_ = 0;
    bool catchingUp_ = false;  // the rate is not the stream's, for a moment

    std::optional<Clock::time_point> begun_;  // the first attempt to start
    std::optional<Clock::time_point> downSince_ = Clock::now();
    bool downReported_ = false;
    bool everWorked_ = false;
    std::string trouble_;
    uint64_t lost_ = 0;  // in this outage
    uint64_t lostBefore_ = 0;
    Clock::time_point retry_{};
};

#endif
