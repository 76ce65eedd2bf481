// Any datagrams at any times to the monitor of a stream.
//
// Input: limits in a byte; then of each datagram the milliseconds since the one before, its sender,
// its length in two bytes, and what it carries. The times' highest bit lets a second pass instead.
#include "Fuzz.h"
#include "StreamMonitor.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace std::chrono_literals;
    Input input{{data, size}};
    ts::MonitorLimits limits;
    const uint8_t choice = input.Byte();
    limits.transport.tablesRequired = choice & 1;
    limits.alarms.raiseAfter = choice & 2 ? 1s : 0s;
    ts::StreamMonitor monitor(limits);
    ts::Time now = 0s;
    uint64_t datagrams = 0, bytes = 0;
    while (!input.Rest.empty()) {
        const uint8_t wait = input.Byte();
        now += wait & 0x80 ? 1s : wait * 1ms;
        const uint8_t sender = input.Byte();
        const auto payload = input.Bytes(input.Word());
        monitor.add({payload, now, {{sender}, sender}, sender, sender});
        ++datagrams;
        bytes += payload.size();
        if (sender & 1)
            monitor.tick(now);
    }
    monitor.tick(now + 5s);

    const ts::MonitorReport report = monitor.report();
    const ts::ReceptionCounts& counts = report.reception.counts;
    Check(counts.datagrams == datagrams && counts.bytes == bytes && report.stream.bytes <= bytes);
    Check(counts.rtp.received <= datagrams && counts.rtp.duplicates <= counts.rtp.received);
    Check(counts.rtp.lost <= datagrams * 3001);
    Check(report.reception.sources.size() <= 16);
    Check(report.withoutSignal <= now + 5s);
    Check(!report.nullShare || (*report.nullShare >= 0.0 && *report.nullShare <= 1.0));
    Check(report.delivery.delayFactor_ms.value_or(0.0) >= 0.0);
    Check(report.checks[static_cast<size_t>(ts::Check::kContinuity)].count ==
          report.stream.continuityErrors);
    Check(report.checks[static_cast<size_t>(ts::Check::kSyncLoss)].count >=
          report.stream.syncLosses);
    for (const ts::CheckState& state : report.checks) {
        Check((state.count > 0) == state.first.has_value());
        Check(!state.first || (*state.first <= *state.last && *state.last <= now + 5s));
        Check(state.detail.find('#') == std::string::npos);
    }
    // Each alarm is raised and cleared in turns.
    std::array<bool, ts::kChecks> raised{};
    const auto events = monitor.takeEvents();
    for (const ts::AlarmEvent& event : events) {
        bool& is = raised[static_cast<size_t>(event.check)];
        Check(events.size() == 256 || is != event.raised);
        is = event.raised;
    }
    for (size_t i = 0; i < ts::kChecks; ++i)
        Check(events.size() == 256 || raised[i] == report.checks[i].raised);
    return 0;
}
