// From a receive channel to send channels.
#ifndef TOOLS_ENGINE_RELAYCHAIN_H
#define TOOLS_ENGINE_RELAYCHAIN_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "PacketSieve.h"
#include "engine/Chain.h"
#include "engine/HostModule.h"
#include "engine/Jobs.h"
#include "engine/RelayBranch.h"
#include "media/HostNames.h"
#include "media/StreamUrl.h"

// Takes whole packets from what arrives, and lets two branches send them: that of the raw outputs
// and that of those under RTP.
//
// Sockets that fail are tried again for as long as it takes, and an input that falls silent is
// waited for; each is told when it has lasted, and when it is over. Only where there is a patience
// to begin with does the chain fail: when by then there is no socket for the input, or for none of
// the outputs.
class RelayChain : public Chain {
  public:
    RelayChain(const RelayJob& job, ModuleOnDemand& module,
               std::optional<std::chrono::milliseconds> patience);

    std::optional<Clock::time_point> run(Clock::time_point now) override;
    void cancel() override;

    std::string name() const override { return job_.from; }
    std::string describe(Clock::time_point now) override;
    std::string summary() const override;
    std::vector<std::string> warnings() const override;
    std::optional<std::string> unfinished() const override { return std::nullopt; }

  private:
    void openInput(Clock::time_point now);
    void watchInput(Clock::time_point now);
    void takeInput(Clock::time_point now);
    void sift(Clock::time_point now);
    void checkPatience(Clock::time_point now);
    std::string figures() const;

    const RelayJob job_;
    const StreamUrl url_;
    const ChannelNumber number_;
    ModuleOnDemand& module_;
    const std::optional<std::chrono::milliseconds> patience_;
    std::vector<RelayBranch> branches_;

    LookUp address_;
    std::optional<ReceiveChannel> channel_;
    Clock::time_point retry_{};
    bool socketOpen_ = false;
    bool inputOpened_ = false;   // at any time
    bool outputOpened_ = false;  // one of them
    std::string trouble_;        // why there is no socket

    std::vector<uint8_t> data_;  // in front what was kept of the last turn
    size_t kept_ = 0;
    PacketSieve sieve_;
    uint64_t bytes_ = 0;

    const Clock::time_point started_ = Clock::now();
    Clock::time_point socketSeen_ = started_;
    Clock::time_point lastData_ = started_;
    bool socketReported_ = false;
    bool silenceReported_ = false;
};

#endif
