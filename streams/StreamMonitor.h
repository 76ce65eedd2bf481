// Watches one stream as it arrives, all checks together.
#ifndef STREAMS_STREAMMONITOR_H
#define STREAMS_STREAMMONITOR_H

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "Alarms.h"
#include "MediaDelivery.h"
#include "Reception.h"
#include "StreamAnalyzer.h"
#include "Tr101290.h"

namespace ts {

struct MonitorLimits {
    Alarms::Limits alarms;
    TransportLimits transport;
    Time noSignal = std::chrono::seconds(1);
    Time delayFactor = std::chrono::milliseconds(100);  // beyond the time between two datagrams
    double lossRate = 0.0;  // packets in a second: more than that is an alarm
    bool operator==(const MonitorLimits&) const = default;
};

struct MonitorReport {
    StreamReport stream;
    ReceptionReport reception;
    MediaDeliveryReport delivery;
    std::array<CheckState, kChecks> checks;  // by Check
    bool signal = false;
    Time withoutSignal{0};  // in all, beginning with the first tick
    // Of the last whole second.
    std::optional<uint64_t> bitrate_bps;  // what the datagrams carry
    std::optional<double> nullShare;      // of the packets
    PcrFigures pcrs;
};

// Watching may begin in the middle of anything. One thread uses an object.
class StreamMonitor : private StreamObserver {
  public:
    explicit StreamMonitor(const MonitorLimits& limits);
    StreamMonitor(const StreamMonitor&) = delete;
    StreamMonitor& operator=(const StreamMonitor&) = delete;

    // In the order of their arrivals, which no tick() has passed.
    void add(const Datagram& datagram);
    void socketDrops(uint64_t dropped) { reception_.socketDrops(dropped); }
    // At least every 100 ms: what is missing shows by time alone.
    void tick(Time now);

    std::vector<AlarmEvent> takeEvents() { return alarms_.takeEvents(); }
    MonitorReport report() const;

  private:
    struct Second {  // of which the figures are
        Time begun{};
        uint64_t bytes = 0, packets = 0, nulls = 0, datagrams = 0;
    };
    void onPacket(const PacketFacts& packet) override;
    void onSection(uint16_t pid, std::span<const uint8_t> section, bool intact,
                   Time arrival) override {
        transport_.onSection(pid, section, intact, arrival);
    }
    void lookAround(Time now);
    void lookForSignal(Time now);
    void compareCounts(Time now);
    uint64_t packetsPerDatagram() const;
    void endSecond(Time now);

    const MonitorLimits limits_;
    Alarms alarms_;
    StreamAnalyzer analyzer_;
    Tr101290 transport_;
    Reception reception_;
    MediaDelivery delivery_;

    std::optional<Time> looked_;  // when all was looked at last
    Time arrival_{};              // of the last datagram; when watching began, before the first
    bool signal_ = false;
    Time withoutSignal_{0};
    ReceptionCounts seen_;  // when all was looked at last
    uint64_t seenMissing_ = 0;
    uint64_t nulls_ = 0;
    Second second_;
    std::optional<uint64_t> bitrate_bps_;
    std::optional<double> nullShare_;
};

}  // namespace ts

#endif
