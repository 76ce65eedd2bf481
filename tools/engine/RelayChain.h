// From an input to send channels.
#ifndef TOOLS_ENGINE_RELAYCHAIN_H
#define TOOLS_ENGINE_RELAYCHAIN_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "PacketSieve.h"
#include "engine/Chain.h"
#include "engine/HostModule.h"
#include "engine/Jobs.h"
#include "engine/RelayBranch.h"
#include "engine/StreamInput.h"
#include "engine/StreamSocket.h"

// Takes whole packets from what arrives, and lets two branches send them: that of the raw outputs
// and that of those under RTP.
//
// Sockets that fail are tried again for as long as it takes, and an input that falls silent is
// waited for; each is told when it has lasted, and when it is over. Only where there is a patience
// to begin with does the chain fail: when by then there is no socket for the input, or for none of
// the outputs.
class RelayChain : public Chain {
  public:
    // The module and the means outlive the chain.
    RelayChain(const RelayJob& job, ModuleOnDemand& module, SocketMeans& means,
               std::optional<std::chrono::milliseconds> patience);

    std::optional<Clock::time_point> run(Clock::time_point now) override;
    void cancel() override;

    std::string name() const override { return job_.from; }
    std::string describe(Clock::time_point now) override;
    std::string summary() const override;
    std::vector<std::string> warnings() const override;
    std::optional<std::string> unfinished() const override { return std::nullopt; }
    StreamState state(Clock::time_point now) const override;

  private:
    void watchInput(Clock::time_point now);
    void takeInput(Clock::time_point now);
    void sift(Clock::time_point now);
    void checkPatience(Clock::time_point now);
    std::string figures() const;

    const RelayJob job_;
    const std::optional<std::chrono::milliseconds> patience_;
    std::vector<RelayBranch> branches_;

    const std::unique_ptr<StreamInput> input_;
    bool socketOpen_ = false;
    bool inputOpened_ = false;   // at any time
    bool outputOpened_ = false;  // one of them

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
