// One of the inputs of a relay.
#ifndef TOOLS_ENGINE_RELAYSOURCE_H
#define TOOLS_ENGINE_RELAYSOURCE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "PacketSieve.h"
#include "StreamHealth.h"
#include "engine/Chain.h"
#include "engine/StreamInput.h"

// Takes whole packets from what arrives. Tells when there is no socket for long, or nothing
// arrives, and when that is over. One thread uses an object.
class RelaySource {
  public:
    using Clock = Chain::Clock;
    using Sink = std::function<void(std::span<const uint8_t> packets, size_t packetSize)>;

    // `patience`: its health matters, and silence for that long is an end of the signal. The events
    // are the chain's.
    RelaySource(std::string name, std::unique_ptr<StreamInput> input,
                std::optional<ts::Time> patience, std::vector<std::string>& events);

    // Takes what has come into the buffer, passes on its packets, and returns when this is to be
    // done again at the latest.
    Clock::time_point run(Clock::time_point now, std::span<uint8_t> buffer, const Sink& sink);

    void setOnAir(bool onAir);

    const std::string& name() const { return name_; }
    const StreamInput& input() const { return *input_; }
    bool isOpen() const { return open_; }
    std::string trouble() const { return input_->trouble(); }
    ts::Health health() const;
    // When the last packets came, of which a file always has some.
    ts::Time heard(Clock::time_point now) const {
        return isFile_ ? ts::Time(now.time_since_epoch()) : health_->heard();
    }
    ts::Check fault() const { return health_->fault(); }  // why it was not well last
    uint64_t continuityErrors() const { return sieve_.continuityErrors(); }
    std::vector<std::string> warnings() const;
    InputState state(Clock::time_point now) const;

  private:
    InputHealth beside(Clock::time_point now) const;
    void watch(Clock::time_point now);
    void take(Clock::time_point now, std::span<uint8_t> buffer, const Sink& sink);
    size_t sift(std::span<uint8_t> data, const Sink& sink);

    const std::string name_;
    const bool isFile_;
    const std::unique_ptr<StreamInput> input_;
    const std::unique_ptr<ts::StreamHealth> health_;
    std::vector<std::string>& events_;
    bool onAir_ = false;
    bool open_ = false;
    std::vector<uint8_t> rest_;  // of the last turn, less than some packets
    PacketSieve sieve_;
    uint64_t bytes_ = 0;

    Clock::time_point openSeen_ = Clock::now();
    Clock::time_point opened_{};  // its socket, last
    Clock::time_point lastData_ = openSeen_;
    bool closedReported_ = false;
    bool silenceReported_ = false;
};

#endif
