// What 'probe' and 'monitor' have found out about a stream, as text, JSON and metrics.
#ifndef TOOLS_REPORTS_STREAMFINDINGS_H
#define TOOLS_REPORTS_STREAMFINDINGS_H

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "StreamMonitor.h"

// Of which stream, and when.
struct FindingsPlace {
    std::string url;
    std::string name = {};  // empty = the URL
    bool socketOpen = true;
    ts::Time time{0};       // on the steady clock, as all times in the report
    ts::Time wallAhead{0};  // the wall clock, ahead of that
};

// As much of it as can be read.
struct StreamFindings {
    // A stream of damaged or malicious tables has thousands of programmes of hundreds of PIDs each.
    static constexpr size_t kMostProgrammes = 256;
    static constexpr size_t kMostStreams = 4096;  // of all programmes together
    static constexpr size_t kMostPids = 1024;

    StreamFindings(FindingsPlace its, ts::MonitorReport found);

    const std::string& name() const { return place.name.empty() ? place.url : place.name; }
    bool isRtp() const;
    const ts::CheckState& state(ts::Check check) const {
        return report.checks[static_cast<size_t>(check)];
    }

    FindingsPlace place;
    ts::MonitorReport report;
    // What was cut off the report's lists.
    size_t programmesLeftOut = 0;
    size_t streamsLeftOut = 0;
    size_t pidsLeftOut = 0;
};

// 80 columns wide.
std::string findingsText(const StreamFindings& findings);

// One object, on one line or on many.
std::string findingsJson(const StreamFindings& findings, bool oneLine);

// An alarm that was raised or cleared, as one object; the place's time is that of the event.
std::string alarmJson(const FindingsPlace& place, const ts::AlarmEvent& event);

// In Prometheus' text exposition format.
std::string findingsPrometheus(const std::vector<StreamFindings>& all);

// Parts of these, and of other accounts of alarms.
std::string machineName();  // empty where it has none
std::string sourceText(const ts::DatagramSource& source);
std::string isoTime(ts::Time sinceEpoch);  // "2026-11-22T08:15:30.250Z"

#endif
