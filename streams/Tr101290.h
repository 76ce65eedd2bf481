// The checks of ETSI TR 101 290, 5.2, on one transport stream.
#ifndef STREAMS_TR101290_H
#define STREAMS_TR101290_H

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

#include "Alarms.h"
#include "PcrAccuracy.h"
#include "StreamAnalyzer.h"

namespace ts {

// Times are those of arrival. Tables and PTSs, which have to come at least so often, may be late by
// the tolerance: that is what the network's jitter may do to a stream which is right. PCRs go by
// their own values.
struct TransportLimits {
    Time tolerance = std::chrono::milliseconds(20);
    Time grace = std::chrono::seconds(2);  // nothing is missing so soon after a beginning
    Time pat = std::chrono::milliseconds(500);
    Time pmt = std::chrono::milliseconds(500);
    Time pid = std::chrono::seconds(5);  // of video, audio and PCRs
    Time pcrRepetition = std::chrono::milliseconds(100);
    Time pcrJump = std::chrono::milliseconds(100);
    Time pcrAccuracy = std::chrono::nanoseconds(500);
    Time pts = std::chrono::milliseconds(700);
    Time cat = std::chrono::seconds(2);  // behind a scrambled packet; the standard gives none
    // A limit of 0 leaves the table out. These hold once such a table has been seen.
    Time nit = std::chrono::seconds(10);
    Time sdt = std::chrono::seconds(2);
    Time eit = std::chrono::seconds(2);  // present and following, of this stream
    Time tdt = std::chrono::seconds(30);
    bool tablesRequired = false;  // the four also hold where none has been seen
    Time sectionGap = std::chrono::milliseconds(25);
    Time unreferenced = std::chrono::milliseconds(500);
    bool operator==(const TransportLimits&) const = default;
};

struct PcrFigures {
    std::optional<bool> constantRate;  // not known yet; where it varies, PCRs have no accuracy
    Time worstError{0};                // of the last second
};

// Adds what fails to the alarms. The analyzer's packets and sections come by the functions of the
// observer.
class Tr101290 : public StreamObserver {
  public:
    Tr101290(const TransportLimits& limits, const StreamAnalyzer& stream, Alarms& alarms)
        : limits_(limits), stream_(stream), alarms_(alarms) {}

    void onPacket(const PacketFacts& packet) override;
    void onSection(uint16_t pid, std::span<const uint8_t> section, bool intact,
                   Time arrival) override;

    // When bytes came that are no packets; also part of tick().
    void checkSync(Time now);
    // At least every 100 ms, while datagrams come.
    void tick(Time now);
    // The stream has paused: nothing is missing, until it goes on.
    void pause() { begun_.reset(); }
    // Bytes are missing here, though the counters need not show it.
    void cut();

    // Of the PID with PCRs that was judged last.
    const PcrFigures& pcrs() const { return pcrs_; }

  private:
    // Something that has to come again and again.
    struct Repetition {
        Time since{};  // it came last, or was missed last
        bool isLate(Time now, Time limit);
    };
    struct Pid {
        uint16_t pid = 0;
        uint8_t counter = 0;
        bool referenced = false;
        bool pmt = false;
        bool regular = false;  // video, audio, PCRs
        bool timed = false;    // video, audio: has PTSs
        bool clocked = false;  // a programme's PCRs
        bool unreadable = false;
        size_t clock = 0;  // in clocks_, counted from 1
        Time seen{};
        Repetition packets, pcrs;
        Repetition contents;  // PMTs, PTSs, or what nothing refers to, which exclude each other
    };
    struct Clock {
        Pcr last;
        Time arrival;
        PcrAccuracy accuracy;
    };
    struct Table {
        bool seen = false;
        Repetition sections;
    };
    enum { kNit, kSdt, kEitPresent, kEitFollowing, kTdt, kTables };
    struct LastSection {
        Time arrival;
        uint64_t position;
    };

    void begin(Time now);
    Time firstDue(Time now, Time limit) const;
    Pid& find(uint16_t pid);
    void readReferences(Time now);
    void checkScrambling(const Pid& pid, Time arrival);
    void checkPts(Pid& pid, const PacketFacts& packet);
    void checkPcr(Pid& pid, const PacketFacts& packet);
    void checkTable(uint16_t pid, std::span<const uint8_t> section, Time arrival);
    void checkGap(std::span<const uint8_t> section, uint16_t extension, Time arrival);
    void lookForMissing(Pid& pid, Time now);
    Time limitOf(int table) const;
    void failAt(Check check, Time time, const char* text, uint16_t pid, Time length);

    const TransportLimits limits_;
    const StreamAnalyzer& stream_;
    Alarms& alarms_;

    std::optional<Time> begun_;  // the packets since then belong together
    uint64_t syncLosses_ = 0, syncByteErrors_ = 0;
    std::optional<Time> unsynchronised_;           // since then, no packets are found
    std::array<uint16_t, kNullPid + 1> places_{};  // in pids_, counted from 1
    std::vector<Pid> pids_;
    uint64_t references_ = 0;  // of the analyzer's, those that were read
    bool complete_ = false;    // the PAT and all PMTs are known
    Repetition pat_, cat_;
    std::optional<Time> scrambled_;  // when such a packet came last
    std::array<Table, kTables> tables_;
    std::unordered_map<uint32_t, LastSection> sections_;  // by table and its extension
    std::vector<Clock> clocks_;
    uint64_t nulls_ = 0;
    PcrFigures pcrs_;
};

}  // namespace ts

#endif
