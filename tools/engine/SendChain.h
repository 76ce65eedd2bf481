// From a file or a pipe to a send channel.
#ifndef TOOLS_ENGINE_SENDCHAIN_H
#define TOOLS_ENGINE_SENDCHAIN_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Excerpt.h"
#include "OwnPace.h"
#include "engine/Chain.h"
#include "engine/HostModule.h"
#include "engine/Jobs.h"
#include "media/HostNames.h"
#include "media/PacketSource.h"
#include "media/StreamUrl.h"

// The module, loaded when the first input has turned out to be a stream: an input that is none does
// not replace the shared table of this machine's other users.
class ModuleOnDemand {
  public:
    HostModule& get() { return module_ ? *module_ : module_.emplace(); }

  private:
    std::optional<HostModule> module_;
};

// Reads ahead, lets the shaper give each datagram its time, and keeps the channel's buffer filled a
// fraction of a second ahead, so that the channel's own thread sets the pace.
//
// An output that fails (no socket, no route) ends nothing: it is tried again, and a file goes on
// where it stopped, while what comes from a pipe is lost meanwhile. Only to begin with, there may
// be a limit to the patience.
class SendChain : public Chain {
  public:
    // Without `patience`, what cannot begin is tried for ever.
    SendChain(const SendJob& job, uint32_t channel, ModuleOnDemand& module,
              std::optional<std::chrono::milliseconds> patience);

    std::optional<Clock::time_point> run(Clock::time_point now) override;

    // What has happened since the last call, for the user to know.
    std::vector<std::string> takeEvents() { return std::exchange(events_, {}); }

    // Stops sending. While no socket can be opened, a channel takes up to a second to end from then
    // on: who ends several of them cancels all of them first.
    void cancel();

    const SendJob& job() const { return job_; }
    std::string inputName() const;
    std::string describe(Clock::time_point now);  // how far it has come
    std::string summary() const;                  // empty = nothing was sent
    std::vector<std::string> warnings() const;

  private:
    ts::Time streamTime(Clock::time_point now) const { return now.time_since_epoch() - shift_; }
    ts::Time lead() const;                  // how far ahead the buffer is filled
    ts::Time timeOf(uint64_t bytes) const;  // at the channel's rate

    bool openInput(Clock::time_point now);
    bool prepareShaper();
    void read(ts::Time now, ts::Time until);
    void endInput();
    bool startChannel(Clock::time_point now);
    void watch(Clock::time_point now);
    void goDown(Clock::time_point now, const std::string& why);
    void stayDown(Clock::time_point now);
    void comeBack(Clock::time_point now);
    void feed(Clock::time_point now);
    void steer(ts::Time left);
    void keepUp(Clock::time_point now);
    void changeBitrate(double bitrate_bps);
    void resync(Clock::time_point now);
    void hand(std::span<const uint8_t> data);
    void handNullPackets(size_t packets);
    void tellNeed();
    bool varies() const { return ownPace_ != nullptr && ownPace_->varies(); }
    std::optional<Clock::time_point> drain(Clock::time_point now);
    Clock::time_point nextLook(Clock::time_point now) const;

    const SendJob job_;
    const StreamUrl url_;
    LookUp addresses_;
    const uint32_t number_;
    ModuleOnDemand& module_;
    const std::optional<std::chrono::milliseconds> patience_;
    const bool isMadeConstant_;
    const bool follows_;  // the stream's rate, by changes of the channel's
    std::vector<std::string> events_;

    std::optional<PacketSource> source_;
    std::optional<Excerpt> excerpt_;
    std::unique_ptr<ts::Shaper> shaper_;
    const ts::OwnPace* ownPace_ = nullptr;  // the shaper, where it is one
    bool needTold_ = false;                 // that the rate is too low
    bool inputOver_ = false;
    bool busy_ = false;  // more could be read at once

    std::unique_ptr<SendChannel> channel_;
    QXV_RTP_Statistics state_{};  // of the channel, when it was looked at last
    size_t payload_ = 0;
    uint32_t rate_bps_ = 0;  // of the channel
    uint64_t handed_ = 0;
    uint64_t changes_ = 0;       // of the rate
    bool catchingUp_ = false;    // the rate is not the stream's, for a moment
    uint32_t emptyLooks_ = 0;    // in a row, at a buffer that should not have been empty
    ts::Time shift_{0};          // how long the stream has been held up in all
    Clock::time_point lasts_{};  // when the buffer should be empty

    const Clock::time_point started_ = Clock::now();
    std::optional<Clock::time_point> downSince_ = started_;
    bool downReported_ = false;
    uint64_t dropped_ = 0;  // datagrams of this outage
    bool everWorked_ = false;
    Clock::time_point retry_ = started_;
    Clock::time_point drainedAt_{};

    Clock::time_point measuredAt_ = started_;
    uint64_t measuredDatagrams_ = 0;
    uint32_t measured_bps_ = 0;
};

#endif
