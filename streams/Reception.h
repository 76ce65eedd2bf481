// What arrives at a socket, before it is looked into: from whom, in which datagrams, how evenly.
#ifndef STREAMS_RECEPTION_H
#define STREAMS_RECEPTION_H

#include <array>
#include <bitset>
#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "RtpSequence.h"

namespace ts {

struct DatagramSource {
    std::array<uint8_t, 16> address{};  // IPv4: the first four bytes
    uint16_t port = 0;
    bool ipv6 = false;

    auto operator<=>(const DatagramSource&) const = default;
};

struct Datagram {
    std::span<const uint8_t> payload;  // of UDP
    Time arrival{};                    // never goes back
    DatagramSource source;
    std::optional<uint8_t> ttl, dscp;
};

// Times between datagrams, of the last one to two minutes: a count for each eighth of an octave.
class ArrivalIntervals {
  public:
    void add(Time interval, Time now);

    struct Report {
        double p50_ms, p99_ms;  // at most an eighth too long
        double longest_ms;
    };
    std::optional<Report> report() const;

  private:
    static constexpr size_t kClasses = size_t{28} * 8;  // a microsecond to more than two minutes
    struct Minute {
        std::array<uint32_t, kClasses> counts{};
        Time longest{0};
    };
    std::array<Minute, 2> minutes_;  // this one and the last
    Time begun_{0};
};

struct SourceReport {
    DatagramSource source;
    uint64_t datagrams = 0;
    Time first{}, last{};
};

struct RtpReport {
    RtpCounts counts;                     // of all sources
    uint32_t ssrc = 0;                    // the last one, as all below
    uint8_t payloadType = 0;              // 33 = a transport stream by the standard
    double jitter_ms = 0.0;               // RFC 3550, A.8
    std::optional<double> timestampRate;  // ticks in a second of arrival: nominally 90,000
};

struct ReceptionCounts {
    uint64_t datagrams = 0;
    uint64_t bytes = 0;  // of UDP payload
    uint64_t rtpDatagrams = 0;
    uint64_t oddDatagrams = 0;  // what they carry is not made of whole packets
    uint64_t alternations = 0;  // a sender came back within a second of another's datagram
    uint64_t socketDrops = 0;   // by the receiving socket: this machine's, not the network's
    RtpCounts rtp;
};

struct ReceptionReport {
    ReceptionCounts counts;
    size_t smallest = 0, largest = 0;   // UDP payloads
    std::vector<SourceReport> sources;  // sixteen at most: those that were heard last
    std::optional<RtpReport> rtp;
    std::optional<ArrivalIntervals::Report> intervals;
    std::vector<uint8_t> dscps;  // that were seen, in order
    std::optional<uint8_t> smallestTtl, largestTtl;
};

class Reception {
  public:
    // What the datagram carries: RTP's header and padding are taken off. Nothing of a duplicate.
    std::span<const uint8_t> add(const Datagram& datagram);
    void socketDrops(uint64_t dropped) { counts_.socketDrops += dropped; }
    // Counts what RTP lacks, at least every 100 ms.
    void tick(Time now);

    const ReceptionCounts& counts() const { return counts_; }
    ReceptionReport report() const;

  private:
    struct Source {
        SourceReport report;
        RtpSequence rtp;
    };
    Source& find(const Datagram& datagram);
    void noteSize(size_t carried);

    ReceptionCounts counts_;
    std::vector<Source> sources_;
    size_t current_ = 0;
    std::optional<Time> last_;
    ArrivalIntervals intervals_;
    size_t smallest_ = SIZE_MAX, largest_ = 0;
    uint8_t payloadType_ = 0;
    std::bitset<64> dscps_;
    std::optional<uint8_t> smallestTtl_, largestTtl_;
};

}  // namespace ts

#endif
