// From one input of several to send channels.
#ifndef TOOLS_ENGINE_RELAYCHAIN_H
#define TOOLS_ENGINE_RELAYCHAIN_H

#include <chrono>
#include <cstdint>
#include <list>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Selector.h"
#include "Splicer.h"
#include "engine/Chain.h"
#include "engine/HostModule.h"
#include "engine/Jobs.h"
#include "engine/RelayBranch.h"
#include "engine/RelaySource.h"
#include "engine/StreamSocket.h"

// Takes whole packets from the input that is on air, and lets two branches send them: that of the
// raw outputs and that of those under RTP. All inputs are received, so that one can take the place
// of another at once.
//
// Sockets that fail are tried again for as long as it takes, and an input that falls silent is
// waited for; each is told when it has lasted, and when it is over. Only where there is a patience
// to begin with does the chain fail: when by then there is no socket for any input, or for none of
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
    void addSource(const std::string& name, SocketMeans& means);
    void push(RelaySource& source, std::span<const uint8_t> packets, size_t packetSize,
              Clock::time_point now);
    void select(Clock::time_point now);
    void tell(const ts::Selector::Choice& choice);
    void checkPatience(Clock::time_point now);
    RelaySource& source(size_t number) {
        return *std::next(sources_.begin(), static_cast<std::ptrdiff_t>(number));
    }
    std::string figures() const;

    const RelayJob job_;
    const std::optional<std::chrono::milliseconds> patience_;
    std::vector<RelayBranch> branches_;

    std::list<RelaySource> sources_;  // in the order of preference
    RelaySource* onAir_ = nullptr;    // never null where there is one only
    ts::Selector selector_;
    ts::Splicer splicer_;
    bool inputOpened_ = false;   // one of them, at any time
    bool outputOpened_ = false;  // one of them

    std::vector<uint8_t> buffer_;
    uint64_t bytes_ = 0;  // from inputs that were on air

    const Clock::time_point started_ = Clock::now();
    Clock::time_point lastData_ = started_;
};

#endif
