// The checks of a monitored stream: what they are, how often each failed, and which alarms are on.
#ifndef STREAMS_ALARMS_H
#define STREAMS_ALARMS_H

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Shaper.h"

namespace ts {

// The numbers are those of ETSI TR 101 290, 5.2.
enum class Check : uint8_t {
    kNoSignal,
    kSyncLoss,          // 1.1
    kSyncByte,          // 1.2
    kPat,               // 1.3.a
    kContinuity,        // 1.4
    kPmt,               // 1.5.a
    kPid,               // 1.6
    kTransport,         // 2.1
    kCrc,               // 2.2
    kPcrRepetition,     // 2.3a
    kPcrDiscontinuity,  // 2.3b
    kPcrAccuracy,       // 2.4
    kPts,               // 2.5
    kCat,               // 2.6
    kSiRepetition,      // 3.2
    kUnreferencedPid,   // 3.4.a
    kRtpLoss,
    kSecondSender,
    kDatagramSize,
    kDelayFactor,  // RFC 4445
    kMediaLoss,    // RFC 4445
    kSocketDrops,
};
inline constexpr size_t kChecks = 22;

struct CheckInfo {
    const char* name;       // "pat_error": stable, for files and metrics
    const char* reference;  // "1.3.a"; "" = in no list of checks
    const char* text;       // one line for people
    int priority;           // of TR 101 290; 0 = it is none of these
};
const CheckInfo& info(Check check);

// What a failure was, kept as numbers until somebody reads it.
struct Detail {
    // Each # stands for the next of the numbers, each @ for one that is written in hexadecimal, and
    // ~ for the "s" of a word that goes with the number before it.
    const char* text = "";
    int64_t numbers[3] = {};

    std::string toText() const;
};

struct CheckState {
    uint64_t count = 0;  // of failures
    std::optional<Time> first, last;
    bool raised = false;
    std::string detail;  // of the last failure
};

struct AlarmEvent {
    Check check;
    bool raised;  // or cleared
    Time time;
    std::string detail;
};

// An alarm is raised when its check has kept failing for `raiseAfter`, and cleared when it has not
// failed for `clearAfter`. Failures that are less than `clearAfter` apart belong together.
class Alarms {
  public:
    struct Limits {
        Time raiseAfter{0};
        Time clearAfter = std::chrono::seconds(10);
        std::bitset<kChecks> ignored;  // counted, but never raised
        bool operator==(const Limits&) const = default;
    };
    explicit Alarms(const Limits& limits) : limits_(limits) {}

    void fail(Check check, Time time, const Detail& detail, uint64_t count = 1);
    // What has failed still fails, which does not count again.
    void last(Check check, Time time);
    bool isFailing(Check check) const {
        return alarms_[static_cast<size_t>(check)].since.has_value();
    }
    uint64_t count(Check check) const { return alarms_[static_cast<size_t>(check)].count; }
    void tick(Time now);

    // The oldest go when nobody takes them.
    std::vector<AlarmEvent> takeEvents();
    CheckState state(Check check) const;

  private:
    struct Alarm {
        uint64_t count = 0;
        Time first{}, last{};
        Detail detail;
        std::optional<Time> since;  // it keeps failing
        bool raised = false;
    };
    void keepUp(Check check, Time time);
    void tell(Check check, bool raised, Time time);

    const Limits limits_;
    std::array<Alarm, kChecks> alarms_;
    std::vector<AlarmEvent> events_;
};

}  // namespace ts

#endif
