// Sending: what a datagram costs, how late it leaves, and how fast one channel can be.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "Contenders.h"
#include "Measure.h"
#include "ModuleSide.h"
#include "Scenarios.h"

namespace {

Contender bareLoop() {
    return makeOurs("bare 1 ms loop", sendPaced);
}
Contender moduleItself() {
    return makeOurs("module", moduleSend);
}
Contender bareUnpaced() {
    return makeOurs("bare send()", sendUnpaced);
}
Contender moduleUnpaced() {
    return makeOurs("module", moduleSendUnpaced);
}

// How the datagrams lie against the ideal schedule, in which number n of a channel is due at its
// start + n * period.
struct Schedule {
    std::vector<double> lateness_ms;  // of all channels
    double rateError_ppm = 0.0;       // of the worst channel
    uint64_t missing = 0;             // numbers of which no datagram came
};

struct Window {
    int64_t begin_ns, end_ns;  // CLOCK_REALTIME, as the stamps
};

// Where one channel's datagrams lie against a schedule that begins at the window's begin.
struct Deviation {
    double number, late_ns;
};

std::vector<Deviation> deviationsOf(const std::atomic<int64_t> (&stamps)[kStamps], double period_ns,
                                    Window window) {
    std::vector<Deviation> deviations;
    for (uint32_t number = 0; number < kStamps; ++number) {
        const int64_t stamp = stamps[number].load(std::memory_order_relaxed);
        if (stamp >= window.begin_ns && stamp <= window.end_ns)
            deviations.push_back(
                {static_cast<double>(number),
                 static_cast<double>(stamp - window.begin_ns) - number * period_ns});
    }
    return deviations;
}

// Slope of the line of least squares: unlike the time from the first to the last datagram it hardly
// feels their lateness.
double slopeOf(const std::vector<Deviation>& deviations) {
    const auto n = static_cast<double>(deviations.size());
    double x = 0, y = 0, above = 0, below = 0;
    for (const auto& [number, late_ns] : deviations) {
        x += number / n;
        y += late_ns / n;
    }
    for (const auto& [number, late_ns] : deviations) {
        above += (number - x) * (late_ns - y);
        below += (number - x) * (number - x);
    }
    return below > 0 ? above / below : 0.0;
}

Schedule fitSchedule(Load load, Window window) {
    Schedule schedule;
    for (uint32_t channel = 0; channel < load.channels; ++channel) {
        const std::vector<Deviation> all =
            deviationsOf(board().stamps[channel], load.period_ns(), window);
        if (all.empty())
            throw Failure("it has stopped sending");
        // The start is where the earliest datagram is just in time.
        const double earliest = std::ranges::min_element(all, {}, &Deviation::late_ns)->late_ns;
        for (const Deviation& deviation : all)
            schedule.lateness_ms.push_back((deviation.late_ns - earliest) * 1e-6);
        schedule.missing +=
            static_cast<uint64_t>(all.back().number - all.front().number) + 1 - all.size();
        const double error = slopeOf(all) / load.period_ns() * 1e6;
        if (std::abs(error) > std::abs(schedule.rateError_ppm))
            schedule.rateError_ppm = error;
    }
    return schedule;
}

Points distribution(std::vector<double> lateness_ms) {
    constexpr size_t kPoints = 200;
    std::sort(lateness_ms.begin(), lateness_ms.end());
    Points points;
    for (size_t i = 0; i < kPoints; ++i)
        points.emplace_back(lateness_ms[i * (lateness_ms.size() - 1) / (kPoints - 1)],
                            100.0 * static_cast<double>(i) / (kPoints - 1));
    return points;
}

Values measureSending(const Contender& sender, Load load, double seconds,
                      Points* lateness = nullptr) {
    constexpr double kWarmUp_s = 1.0;
    constexpr double kPatience_s = 10.0;
    clearBoard();
    const Child sink = Child::fork(Place::Traffic, [&] { receiveStamps(board(), load); });
    if (!waitFor(kPatience_s, [&] { return board().ready != 0; }))
        throw Failure("the receiver of what is sent does not start");
    const Children children = sender.start(load, seconds + kWarmUp_s + kPatience_s);
    const bool flows = waitFor(kPatience_s, [&] {
        return std::all_of(board().received, board().received + load.channels,
                           [](const auto& received) { return received != 0; });
    });
    if (!flows)
        throw Failure("it does not send");
    sleepFor(kWarmUp_s);
    Window window{now_ns(CLOCK_REALTIME), 0};
    const Meter meter(children);
    sleepFor(seconds);
    const Meter::Usage usage = meter.read();
    window.end_ns = now_ns(CLOCK_REALTIME);
    sleepFor(0.05);  // the sink reads its sockets every 5 ms

    const Schedule schedule = fitSchedule(load, window);
    const std::vector<double>& late = schedule.lateness_ms;
    if (lateness != nullptr)
        *lateness = distribution(late);
    Values values = costOf(usage, static_cast<double>(late.size()));
    const Values timing{{"lost", static_cast<double>(schedule.missing), Merge::Worst},
                        {"late p50 ms", percentile(late, 50)},
                        {"late p99 ms", percentile(late, 99)},
                        {"late max ms", percentile(late, 100), Merge::Worst},
                        {"rate ppm", schedule.rateError_ppm}};
    values.insert(values.end(), timing.begin(), timing.end());
    return values;
}

// Into a socket that another process empties as fast as it can. What it cannot take is counted,
// too.
Values measureUnpaced(const Contender& sender, double seconds) {
    constexpr double kWarmUp_s = 0.3;
    constexpr double kPatience_s = 15.0;
    clearBoard();
    const Child sink = Child::fork(Place::Traffic, [] { receiveSpinning(board(), {1, 0.0}); });
    if (!waitFor(kPatience_s, [] { return board().ready != 0; }))
        throw Failure("the receiver of what is sent does not start");
    const Children children = sender.start({1, 0.0}, 0.0);
    constexpr uint64_t kFlowing = 20000;  // datagrams: more than the module's host sends in advance
    if (!waitFor(kPatience_s, [] { return board().received[0] > kFlowing; }))
        throw Failure("it does not send");
    sleepFor(kWarmUp_s);
    const auto sent = [] { return total(board().received) + udpCount("RcvbufErrors"); };
    const Meter meter(children);
    const uint64_t before = sent();
    sleepFor(seconds);
    Values values = costOf(meter.read(), static_cast<double>(sent() - before));
    values.push_back({"Mbit/s", valueOf(values, "datagrams/s") * kPayloadBytes * 8e-6});
    return values;
}

void longRun(Report& report, const Settings& settings) {
    std::vector<Side> sides;
    for (const Contender& sender : {bareLoop(), moduleItself()})
        sides.push_back({sender.name, [=, &settings] {
                             return measureSending(sender, kLoad, settings.longSeconds);
                         }});
    const Rows rows = alternate(sides, 1);
    report.table(fmt::format("sending 16 x 8 Mbit/s for {} s", settings.longSeconds),
                 "rate ppm: too slow (+) or too fast (-), the worst channel, by the line of least "
                 "squares",
                 rows);
    std::optional<double> error = valueOf(rows, "module", "rate ppm");
    if (error)
        error = std::abs(*error);
    report.goal("3", fmt::format("long-run rate over {} s, ppm", settings.longSeconds), error,
                Report::Bound::AtMost, 5.0);
}

}  // namespace

Values sendOnce(bool module, Load load, double seconds) {
    return measureSending(module ? moduleItself() : bareLoop(), load, seconds);
}

void benchSend(Report& report, const Settings& settings) {
    std::vector<Contender> senders{bareLoop(), moduleItself()};
    if (settings.peers)
        std::ranges::move(peerSenders(), std::back_inserter(senders));
    std::vector<Curve> curves(senders.size());
    std::vector<Side> sides;
    for (size_t i = 0; i < senders.size(); ++i) {
        curves[i].title = senders[i].name;
        sides.push_back({senders[i].name, [&, i] {
                             return measureSending(senders[i], kLoad, settings.seconds,
                                                   &curves[i].points);
                         }});
    }
    Rows rows = alternate(sides, settings.rounds);
    addRatio(rows, bareLoop().name, kCost);
    report.table("sending 16 x 8 Mbit/s", "module: a host thread that feeds all channels included",
                 rows);
    report.plot({"lateness", "Lateness of datagrams, 16 x 8 Mbit/s", "ms after the ideal schedule",
                 "% of datagrams", "set xrange [0:4]\nset key right bottom", curves});
    using enum Report::Bound;
    report.goal("3", "sending 16 x 8 Mbit/s, CPU: module / multicat",
                ratio(rows, "module", "multicat", kCost), AtMost, 0.6);
    report.goal("3", "lateness p50, ms", valueOf(rows, "module", "late p50 ms"), AtMost, 0.55);
    report.goal("3", "lateness p99, ms", valueOf(rows, "module", "late p99 ms"), AtMost, 1.1);
    longRun(report, settings);
}

void benchUnpaced(Report& report, const Settings& settings) {
    const double seconds = std::min(settings.seconds, 1.5);
    std::vector<Side> sides;
    for (const Contender& sender : {bareUnpaced(), moduleUnpaced()})
        sides.push_back({sender.name, [=] { return measureUnpaced(sender, seconds); }});
    Rows rows = alternate(sides, settings.rounds);
    addRatio(rows, bareUnpaced().name, "datagrams/s");
    report.table(
        "one channel, far behind its schedule",
        "everything is due; the host that feeds the module runs beside what takes the traffic, "
        "but its CPU is included",
        rows);
    report.goal("4", "one send channel unpaced, datagrams/s: module / bare send()",
                ratio(rows, "module", bareUnpaced().name, "datagrams/s"), Report::Bound::AtLeast,
                0.9);
}
