// The checks of ETSI TR 101 290, 5.2, on one transport stream.
#ifndef STREAMS_TR101290_H
#define STREAMS_TR101290_H

#include <cstdint>

#include "Alarms.h"
#include "StreamAnalyzer.h"

namespace ts {

// Times are those of arrival. What has to come at least so often may be late by the tolerance: that
// is what the network's jitter may do to a stream which is right.
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
};

class Tr101290 : public StreamObserver {
  public:
    Tr101290(const TransportLimits& limits, Alarms& alarms) : limits_(limits), alarms_(alarms) {}

    void onPacket(const PacketFacts& packet) override;

  private:
    const TransportLimits limits_;
    Alarms& alarms_;
};

}  // namespace ts

#endif
