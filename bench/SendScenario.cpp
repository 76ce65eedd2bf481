// Sending: what a datagram costs, how late it leaves, and how fast one channel can be.
#include <fmt/format.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "Measure.h"
#include "ModuleSide.h"
#include "Peers.h"
#include "Scenarios.h"

namespace {

struct Sender {
    std::string name;
    std::function<Children(Board&, Load, double seconds)> start;
};

Sender ours(const std::string& name, void (*routine)(Board&, Load)) {
    return {name, [routine](Board& board, Load load, double) {
                Children children;
                children.push_back(Child::fork(Place::Measured,
                                               [&board, routine, load] { routine(board, load); }));
                return children;
            }};
}

Sender theirs(const std::string& peer) {
    return {peer, [peer](Board&, Load load, double seconds) {
                return startSenders(peer, load, seconds);
            }};
}

// How the datagrams of all channels lie against the ideal schedule, in which number n of a channel
// is due at its start + n * period.
struct Schedule {
    std::vector<double> lateness_ms;
    double rateError_ppm = 0.0;  // of the worst channel
    uint64_t missing = 0;        // numbers of which no datagram came
};

struct Window {
    int64_t begin_ns, end_ns;  // CLOCK_REALTIME, as the stamps
};

// Deviations of one channel from a schedule that begins at the window's begin.
struct Deviation {
    double number, late_ns;
};

std::vector<Deviation> deviationsOf(const std::atomic<int64_t> (&stamps)[kStamps], double period_ns,
                                    Window window, uint64_t& missing) {
    std::vector<Deviation> deviations;
    for (uint32_t number = 0; number < kStamps; ++number) {
        const int64_t stamp = stamps[number].load(std::memory_order_relaxed);
        if (stamp > window.end_ns)
            break;
        if (stamp >= window.begin_ns)
            deviations.push_back(
                {static_cast<double>(number),
                 static_cast<double>(stamp - window.begin_ns) - number * period_ns});
    }
    if (!deviations.empty())
        missing += static_cast<uint64_t>(deviations.back().number - deviations.front().number) + 1 -
                   deviations.size();
    return deviations;
}

// Slope of the line of least squares, against the period: how much too slow the stream runs. Unlike
// the time between the first and the last datagram it hardly feels their lateness.
double slope_ppm(const std::vector<Deviation>& deviations, double period_ns) {
    double n = 0, x = 0, y = 0;
    for (const Deviation& deviation : deviations) {
        ++n;
        x += deviation.number;
        y += deviation.late_ns;
    }
    double above = 0, below = 0;
    for (const Deviation& deviation : deviations) {
        above += (deviation.number - x / n) * (deviation.late_ns - y / n);
        below += (deviation.number - x / n) * (deviation.number - x / n);
    }
    return below > 0 ? above / below / period_ns * 1e6 : 0.0;
}

Schedule fitSchedule(const Board& board, Load load, Window window) {
    Schedule schedule;
    for (uint32_t channel = 0; channel < load.channels; ++channel) {
        const std::vector<Deviation> deviations =
            deviationsOf(board.stamps[channel], load.period_ns(), window, schedule.missing);
        // The start is where the earliest datagram is just in time.
        double earliest = HUGE_VAL;
        for (const Deviation& deviation : deviations)
            earliest = std::min(earliest, deviation.late_ns);
        for (const Deviation& deviation : deviations)
            schedule.lateness_ms.push_back((deviation.late_ns - earliest) * 1e-6);
        const double error = slope_ppm(deviations, load.period_ns());
        if (std::abs(error) > std::abs(schedule.rateError_ppm))
            schedule.rateError_ppm = error;
    }
    return schedule;
}

Points distribution(std::vector<double> lateness_ms) {
    constexpr size_t kPoints = 200;
    std::sort(lateness_ms.begin(), lateness_ms.end());
    Points points;
    for (size_t i = 0; i < kPoints && !lateness_ms.empty(); ++i) {
        const double share = static_cast<double>(i) / (kPoints - 1);
        const auto last = static_cast<double>(lateness_ms.size() - 1);
        points.emplace_back(lateness_ms[static_cast<size_t>(share * last)], share * 100);
    }
    return points;
}

Values measureSending(const Sender& sender, Load load, double seconds, Points* lateness) {
    constexpr double kWarmUp_s = 1.0;
    constexpr double kPatience_s = 10.0;
    const Shared<Board> board = makeShared<Board>();
    const Child sink = Child::fork(Place::Traffic, [&] { receiveStamps(*board, load.channels); });
    if (!waitFor(kPatience_s, [&] { return board->ready != 0; }))
        throw Failure("the receiver of the sent datagrams does not start");
    const Children children = sender.start(*board, load, seconds + kWarmUp_s + kPatience_s);
    const bool flowing = waitFor(kPatience_s, [&] {
        return std::all_of(board->received, board->received + load.channels,
                           [](const auto& count) { return count != 0; });
    });
    if (!flowing)
        throw Failure(sender.name + " does not send");
    sleepFor(kWarmUp_s);
    Window window{now_ns(CLOCK_REALTIME), 0};
    const Usage before = usageOf(children);
    sleepFor(seconds);
    const Usage after = usageOf(children);
    window.end_ns = now_ns(CLOCK_REALTIME);
    sleepFor(0.05);  // the sink reads its sockets every 5 ms

    const double elapsed_s = static_cast<double>(window.end_ns - window.begin_ns) * 1e-9;
    Schedule schedule = fitSchedule(*board, load, window);
    const auto sent = static_cast<double>(schedule.lateness_ms.size());
    if (sent == 0)
        throw Failure(sender.name + " has stopped sending");
    const double cpu_s = after.cpu_s - before.cpu_s;
    if (lateness != nullptr)
        *lateness = distribution(schedule.lateness_ms);
    std::vector<double>& late = schedule.lateness_ms;
    return {{kCost, cpu_s * 1e6 / sent},
            {kCore, cpu_s / elapsed_s * 100},
            {kWakeups, static_cast<double>(after.wakeups - before.wakeups) / elapsed_s},
            {"datagrams/s", sent / elapsed_s},
            {"lost", static_cast<double>(schedule.missing), Merge::Worst},
            {"late p50 ms", percentile(late, 50)},
            {"late p99 ms", percentile(late, 99)},
            {"late max ms", percentile(late, 100), Merge::Worst},
            {"rate ppm", schedule.rateError_ppm}};
}

const Sender kBare = ours("bare 1 ms loop", sendPaced);
const Sender kModule = ours("module", moduleSend);

// A socket that nobody reads: once it is full, the kernel drops every datagram at its door, which
// costs every sender the same, and counts them.
class Sink {
  public:
    uint64_t dropped() const {
        std::array<uint32_t, SK_MEMINFO_VARS> info{};
        socklen_t size = sizeof(info);
        getsockopt(file_, SOL_SOCKET, SO_MEMINFO, info.data(), &size);
        return info[SK_MEMINFO_DROPS];
    }
    Sink() = default;
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;
    ~Sink() { close(file_); }

  private:
    const int file_ = listenAt(0, 0);
};

Values measureUnpaced(void (*routine)(), double seconds) {
    constexpr double kWarmUp_s = 0.5;
    const Sink sink;
    Children children;
    children.push_back(Child::fork(Place::Anywhere, routine));
    sleepFor(kWarmUp_s);
    const int64_t start = now_ns();
    const Usage before = usageOf(children);
    const uint64_t droppedBefore = sink.dropped();
    sleepFor(seconds);
    // 32 bits, which wrap.
    const auto sent = static_cast<double>(static_cast<uint32_t>(sink.dropped() - droppedBefore));
    const double cpu_s = usageOf(children).cpu_s - before.cpu_s;
    const double elapsed_s = static_cast<double>(now_ns() - start) * 1e-9;
    return {{"datagrams/s", sent / elapsed_s},
            {"Mbit/s", sent * kPayloadBytes * 8 / elapsed_s * 1e-6},
            {kCost, cpu_s * 1e6 / sent},
            {kCore, cpu_s / elapsed_s * 100}};
}

void longRun(Report& report, const Settings& settings) {
    std::vector<Side> sides;
    for (const Sender& sender : {kBare, kModule})
        sides.push_back({sender.name, [=] {
                             return measureSending(sender, kLoad, settings.longSeconds, nullptr);
                         }});
    const Rows rows = alternate(sides, 1);
    report.table(fmt::format("sending 16 x 8 Mbit/s for {} s", settings.longSeconds),
                 "rate ppm: of the worst channel, by the line of least squares", rows);
    const auto error = valueOf(rows, "module", "rate ppm");
    report.goal("3", fmt::format("long-run rate over {} s, ppm", settings.longSeconds),
                error ? std::optional(std::abs(*error)) : error, Report::Bound::AtMost, 5.0);
}

}  // namespace

Values sendOnce(bool module, Load load, double seconds) {
    return measureSending(module ? kModule : kBare, load, seconds, nullptr);
}

void benchSend(Report& report, const Settings& settings) {
    std::vector<Sender> senders{kBare, kModule};
    for (const char* const peer : kPeers)
        if (settings.peers && isInstalled(peer))
            senders.push_back(theirs(peer));
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
    addRatio(rows, kCost);
    report.table("sending 16 x 8 Mbit/s", "module: a host thread that feeds all channels included",
                 rows);
    report.plot({"lateness", "Lateness of datagrams, 16 x 8 Mbit/s", "ms after the ideal schedule",
                 "% of datagrams", "set xrange [0:4]\nset key right bottom", curves});
    using enum Report::Bound;
    report.goal("3", "sending 16 x 8 Mbit/s, CPU: module / multicat",
                ratio(valueOf(rows, "module", kCost), valueOf(rows, "multicat", kCost)), AtMost,
                0.6);
    report.goal("3", "lateness p50, ms", valueOf(rows, "module", "late p50 ms"), AtMost, 0.55);
    report.goal("3", "lateness p99, ms", valueOf(rows, "module", "late p99 ms"), AtMost, 1.1);
    longRun(report, settings);
}

void benchUnpaced(Report& report, const Settings& settings) {
    const double seconds = std::min(settings.seconds, 3.0);
    Rows rows = alternate({{"bare send()", [=] { return measureUnpaced(sendUnpaced, seconds); }},
                           {"module", [=] { return measureUnpaced(moduleSendUnpaced, seconds); }}},
                          settings.rounds);
    addRatio(rows, "datagrams/s");
    report.table("one channel, 4 Gbit/s asked",
                 "into a socket that nobody reads, the same for both; the module's CPU includes "
                 "the host that feeds it",
                 rows);
    report.goal(
        "4", "one send channel unpaced, datagrams/s: module / bare send()",
        ratio(valueOf(rows, "module", "datagrams/s"), valueOf(rows, "bare send()", "datagrams/s")),
        Report::Bound::AtLeast, 0.9);
}
