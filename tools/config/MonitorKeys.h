// The limits of a monitor, as keys of a configuration file.
#ifndef TOOLS_CONFIG_MONITORKEYS_H
#define TOOLS_CONFIG_MONITORKEYS_H

#include "StreamMonitor.h"

struct LimitKey {
    const char* key;
    ts::Time& (*of)(ts::MonitorLimits& limits);
};

// Times, in seconds.
inline constexpr LimitKey kLimitKeys[] = {
    {"raise_after", [](ts::MonitorLimits& l) -> ts::Time& { return l.alarms.raiseAfter; }},
    {"clear_after", [](ts::MonitorLimits& l) -> ts::Time& { return l.alarms.clearAfter; }},
    {"no_signal", [](ts::MonitorLimits& l) -> ts::Time& { return l.noSignal; }},
    {"delay_factor", [](ts::MonitorLimits& l) -> ts::Time& { return l.delayFactor; }},
    {"tolerance", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.tolerance; }},
    {"grace", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.grace; }},
    {"pat", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.pat; }},
    {"pmt", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.pmt; }},
    {"pid", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.pid; }},
    {"pcr_repetition", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.pcrRepetition; }},
    {"pcr_jump", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.pcrJump; }},
    {"pcr_accuracy", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.pcrAccuracy; }},
    {"pts", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.pts; }},
    {"cat", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.cat; }},
    {"nit", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.nit; }},
    {"sdt", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.sdt; }},
    {"eit", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.eit; }},
    {"tdt", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.tdt; }},
    {"section_gap", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.sectionGap; }},
    {"unreferenced", [](ts::MonitorLimits& l) -> ts::Time& { return l.transport.unreferenced; }},
};

#endif
