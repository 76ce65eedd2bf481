// Receiving: what a datagram costs, and how much comes in without loss.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "Measure.h"
#include "ModuleSide.h"
#include "Peers.h"
#include "Scenarios.h"

namespace {

struct Receiver {
    std::string name;
    std::function<Children(Board&, uint32_t channels)> start;
    // Counts what it hands to its host; of the others only full sockets are known.
    bool counts = true;
};

Receiver ours(const std::string& name, void (*routine)(Board&, uint32_t)) {
    return {name, [routine](Board& board, uint32_t channels) {
                Children children;
                children.push_back(Child::fork(
                    Place::Measured, [&board, routine, channels] { routine(board, channels); }));
                return children;
            }};
}

Receiver theirs(const std::string& peer) {
    return {peer, [peer](Board&, uint32_t channels) { return startReceivers(peer, channels); },
            false};
}

// A receiver at work, and the count of what it lost.
class Reception {
  public:
    Reception(const Receiver& receiver, uint32_t channels)
        : receiver_(receiver), channels_(channels), children_(receiver.start(*board, channels)) {
        const bool ready = waitFor(10.0, [&] {
            return receiver.counts ? board->ready != 0 : lookUpSockets(channels).open == channels;
        });
        if (!ready)
            throw Failure(receiver.name + " does not open its sockets");
    }

    const Children& children() const { return children_; }

    // Ends the sender; all that is on its way has then arrived or is lost.
    void settle(Child& sender) {
        board->stop = 1;
        if (!sender.join(3.0))
            throw Failure("the sender does not end");
        if (receiver_.counts)
            waitFor(0.5, [&] { return total(board->received) == total(board->sent); });
        else
            sleepFor(0.3);
        board->stop = 0;
    }

    uint64_t lost() const {
        return receiver_.counts ? total(board->sent) - total(board->received)
                                : lookUpSockets(channels_).drops;
    }

    const Shared<Board> board = makeShared<Board>();

  private:
    const Receiver& receiver_;
    const uint32_t channels_;
    const Children children_;
};

double memoryOf(const Children& children) {
    double memory = 0.0;
    for (const Child& child : children)
        memory += proportionalSet_KiB(child.pid()) / 1024;
    return memory;
}

Values measureCost(const Receiver& receiver, Load load, double seconds) {
    constexpr double kWarmUp_s = 0.5;
    Reception reception(receiver, load.channels);
    Board& board = *reception.board;
    Child sender = Child::fork(Place::Traffic, [&] { sendPaced(board, load); });
    sleepFor(kWarmUp_s);
    const int64_t start = now_ns();
    const Usage before = usageOf(reception.children());
    const uint64_t sentBefore = total(board.sent);
    sleepFor(seconds);
    const Usage after = usageOf(reception.children());
    const auto sent = static_cast<double>(total(board.sent) - sentBefore);
    const double elapsed_s = static_cast<double>(now_ns() - start) * 1e-9;
    const double memory = memoryOf(reception.children());
    reception.settle(sender);
    const double cpu_s = after.cpu_s - before.cpu_s;
    return {{kCost, cpu_s * 1e6 / sent},
            {kCore, cpu_s / elapsed_s * 100},
            {kWakeups, static_cast<double>(after.wakeups - before.wakeups) / elapsed_s},
            {"datagrams/s", sent / elapsed_s},
            {"lost", static_cast<double>(reception.lost()), Merge::Worst},
            {kMemory, memory}};
}

std::vector<Receiver> peersIf(bool wanted) {
    std::vector<Receiver> receivers;
    for (const char* const peer : kPeers)
        if (wanted && isInstalled(peer))
            receivers.push_back(theirs(peer));
    return receivers;
}

const Receiver kBare = ours("bare epoll", receiveEpoll);
const Receiver kModule = ours("module", moduleReceive);

// One try at an offered rate.
struct Try {
    double rate_bps;  // that the sender really reached
    bool lossless;
};

Try tryRate(Reception& reception, Load load, bool trains, double seconds) {
    Board& board = *reception.board;
    const uint64_t sentBefore = total(board.sent);
    const uint64_t lostBefore = reception.lost();
    const int64_t start = now_ns();
    Child sender = Child::fork(Place::Traffic, [&] { sendFlood(board, load, trains); });
    sleepFor(seconds);
    const double elapsed_s = static_cast<double>(now_ns() - start) * 1e-9;
    const auto sent = static_cast<double>(total(board.sent) - sentBefore);
    reception.settle(sender);
    return {sent * kPayloadBytes * 8 / elapsed_s, reception.lost() == lostBefore};
}

// Halves the interval, on a scale of ratios, until it is as narrow as the measurement is exact.
Values searchCapacity(const Receiver& receiver, uint32_t channels, bool trains, double seconds) {
    constexpr double kLowest_bps = 3e8;
    constexpr double kHighest_bps = 12e9;
    constexpr double kExact = 1.03;
    constexpr double kReached = 0.97;  // of the offered rate
    Reception reception(receiver, channels);
    double lowest = kLowest_bps;
    double highest = kHighest_bps;
    double best = 0.0;
    bool limited = false;  // by the sender: it did not reach the next higher rate
    while (highest / lowest > kExact) {
        const double rate = std::sqrt(lowest * highest);
        const Try result = tryRate(reception, {channels, rate / channels}, trains, seconds);
        const bool reached = result.rate_bps >= rate * kReached;
        (result.lossless && reached ? lowest : highest) = rate;
        if (!reached || !result.lossless)
            limited = !reached && result.lossless;
        if (result.lossless)
            best = std::max(best, result.rate_bps);
    }
    return {{"Mbit/s", best * 1e-6},
            {"datagrams/s", best / kPayloadBytes / 8},
            {"sender's limit", limited ? 1.0 : 0.0, Merge::Worst}};
}

void capacity(Report& report, const Settings& settings, uint32_t channels, bool trains) {
    const double seconds = settings.quick ? 0.4 : 1.0;
    const auto side = [=](const Receiver& receiver) {
        return Side{receiver.name,
                    [=] { return searchCapacity(receiver, channels, trains, seconds); }};
    };
    Rows rows = alternate({side(kBare), side(kModule)}, settings.rounds);
    for (const Receiver& peer : peersIf(settings.peers && channels == 1 && trains))
        rows.push_back(alternate({side(peer)}, 1).front());
    addRatio(rows, "Mbit/s");
    const std::string what =
        fmt::format("{}, {}", channels == 1 ? "one channel" : "16 channels together",
                    trains ? "trains of datagrams (UDP_SEGMENT)" : "single datagrams (sendmmsg)");
    report.table("highest rate without loss, " + what, "", rows);
    report.goal("2", what + ": module / bare epoll",
                ratio(valueOf(rows, "module", "Mbit/s"), valueOf(rows, "bare epoll", "Mbit/s")),
                Report::Bound::AtLeast, 1.0);
}

}  // namespace

Values receiveOnce(bool module, Load load, double seconds) {
    return measureCost(module ? kModule : kBare, load, seconds);
}

void benchReceive(Report& report, const Settings& settings) {
    std::vector<Receiver> receivers{kBare, ours("bare 1 ms drain", receiveDrain), kModule};
    const std::vector<Receiver> peers = peersIf(settings.peers);
    receivers.insert(receivers.end(), peers.begin(), peers.end());
    std::vector<Side> sides;
    for (const Receiver& receiver : receivers)
        sides.push_back(
            {receiver.name, [=] { return measureCost(receiver, kLoad, settings.seconds); }});
    Rows rows = alternate(sides, settings.rounds);
    addRatio(rows, kCost);
    report.table("receiving 16 x 8 Mbit/s",
                 "module: its housekeeping and a host thread that reads all channels included",
                 rows);

    std::optional<double> best;
    for (const Receiver& peer : peers)
        best = std::min(best.value_or(HUGE_VAL), *valueOf(rows, peer.name, kCost));
    const auto module = valueOf(rows, "module", kCost);
    report.goal("1", "receiving 16 x 8 Mbit/s, CPU: module / bare epoll",
                ratio(module, valueOf(rows, "bare epoll", kCost)), Report::Bound::AtMost, 1.3);
    report.goal("1", "receiving 16 x 8 Mbit/s, CPU: module / best peer", ratio(module, best),
                Report::Bound::AtMost, 0.4);
}

void benchCapacity(Report& report, const Settings& settings) {
    for (const bool trains : {true, false})
        for (const uint32_t channels : {1u, kStreams})
            if (trains || !settings.quick)
                capacity(report, settings, channels, trains);
}
