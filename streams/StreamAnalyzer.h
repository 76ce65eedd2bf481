// What a transport stream contains, and how well it arrives.
#ifndef STREAMS_STREAMANALYZER_H
#define STREAMS_STREAMANALYZER_H

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "PsiTables.h"
#include "TransportStream.h"

struct PidReport {
    uint16_t pid = 0;
    std::string kind;      // "PAT", "PMT", "video", ...; "other" = stands in no table
    std::string codec;     // of video, audio, subtitle and data; "" = not known
    std::string language;  // "" = not given
    std::vector<uint16_t> programmes;
    bool pcr = false;
    uint64_t packets = 0;
    uint64_t scrambled = 0;  // packets
    uint64_t continuityErrors = 0;
    std::optional<uint64_t> bitrate_bps;
};

// The clock of one PID. An interval is the time between two PCRs by their own values; the jitter is
// how far their arrival strays from their values, less the mean.
struct PcrReport {
    uint16_t pid = 0;
    uint64_t count = 0;
    uint64_t discontinuities = 0;
    double shortestInterval_ms = 0.0;
    double longestInterval_ms = 0.0;
    double jitterPeakToPeak_ms = 0.0;
    double jitterRms_ms = 0.0;
};

struct ProgrammeReport {
    uint16_t number = 0;
    uint16_t pmtPid = 0;
    std::optional<uint16_t> pcrPid;
    std::optional<Service> service;  // by the SDT
    std::vector<ElementaryStream> streams;
};

struct StreamReport {
    size_t packetSize = 0;  // 0 = no packets have been found
    uint64_t bytes = 0;     // those that are no packets, too
    uint64_t packets = 0;
    std::chrono::nanoseconds time{};             // from the first arrival to the last
    std::optional<uint64_t> arrivalBitrate_bps;  // by the time of arrival
    std::optional<uint64_t> pcrBitrate_bps;      // by the stream's own clock
    std::optional<uint16_t> transportStreamId;
    uint64_t syncLosses = 0;
    uint64_t transportErrors = 0;  // packets that a demodulator has marked as damaged
    uint64_t sectionErrors = 0;
    uint64_t continuityErrors = 0;
    std::vector<PidReport> pids;
    std::vector<PcrReport> pcrs;
    std::vector<ProgrammeReport> programmes;
};

// A packet as the analyzer has read it.
struct PacketFacts {
    const uint8_t* data;
    uint16_t pid;
    uint64_t position;  // bytes of packets in front of it
    std::chrono::nanoseconds arrival;
    Continuity continuity;
    bool damaged;  // and so nothing else of it can be trusted
    bool scrambled;
    std::optional<Pcr> pcr;
};

// Looks on while a stream is analyzed.
class StreamObserver {
  public:
    virtual ~StreamObserver() = default;
    virtual void onPacket(const PacketFacts& packet) = 0;
    // Before the packet that the section ends with; as PsiTables tells them.
    virtual void onSection(uint16_t pid, std::span<const uint8_t> section, bool intact,
                           std::chrono::nanoseconds arrival) = 0;
};

// Takes any bytes; its memory stays bounded, whatever they are.
class StreamAnalyzer {
  public:
    explicit StreamAnalyzer(StreamObserver* observer = nullptr);
    StreamAnalyzer(const StreamAnalyzer&) = delete;
    StreamAnalyzer& operator=(const StreamAnalyzer&) = delete;

    // The next bytes of the stream, which may be cut anywhere, and when they arrived.
    void feed(std::span<const uint8_t> bytes, std::chrono::nanoseconds arrival);

    // The stream has paused: what comes next need not continue what came before.
    void restart() { continuity_.restart(); }

    uint64_t bytes() const { return bytes_; }
    uint64_t packetBytes() const { return position_; }
    uint64_t continuityErrors() const { return continuity_.errors(); }
    uint64_t missingPackets() const { return continuity_.missing(); }
    const PacketSplitter& splitter() const { return splitter_; }
    const PsiTables& tables() const { return tables_; }
    // By the stream's own clock.
    std::optional<uint64_t> pcrBitrate() const { return rate_ ? rate_->bitrate() : std::nullopt; }
    StreamReport report() const;

  private:
    struct Pid {
        uint16_t pid = 0;
        uint64_t packets = 0;
        uint64_t scrambled = 0;
        uint64_t continuityErrors = 0;
    };

    class PcrClock {
      public:
        void add(const Pcr& pcr, std::chrono::nanoseconds arrival);
        PcrReport report(uint16_t pid) const;

      private:
        void begin(std::chrono::nanoseconds arrival);

        uint64_t count_ = 0;
        uint64_t discontinuities_ = 0;
        uint64_t lastPcr_ = 0;
        std::optional<uint64_t> shortest_;
        uint64_t longest_ = 0;
        // Since the clock was last cut, relative to the first PCR behind the cut.
        std::chrono::nanoseconds start_{};
        uint64_t ticks_ = 0;
        uint64_t samples_ = 0;
        double sum_ = 0.0;  // of the offsets between arrival and clock, and of their squares
        double squares_ = 0.0;
        double smallest_ = 0.0;
        double largest_ = 0.0;
        // Before it was last cut.
        double peakBefore_ = 0.0;
        double squaresBefore_ = 0.0;
        uint64_t samplesBefore_ = 0;
    };

    void addPacket(const uint8_t* packet, std::chrono::nanoseconds arrival);
    Pid& find(uint16_t pid);
    std::optional<uint64_t> arrivalBitrate() const;
    void describePids(StreamReport& report) const;

    StreamObserver* const observer_;
    PacketSplitter splitter_;
    uint64_t position_ = 0;
    size_t packetSize_ = 0;  // the last that was found
    std::optional<PcrBitrate> rate_;
    ContinuityCounter continuity_;
    PsiTables tables_;
    std::vector<Pid> pids_;                        // in the order in which they came
    std::array<uint16_t, kNullPid + 1> places_{};  // in pids_, counted from 1
    std::map<uint16_t, PcrClock> clocks_;
    uint64_t transportErrors_ = 0;
    uint64_t bytes_ = 0;
    uint64_t firstBytes_ = 0;  // what came first: its arrival begins the time, so it does not count
    std::optional<std::chrono::nanoseconds> first_;
    std::chrono::nanoseconds last_{};
};

#endif
