// Receiving: what a datagram costs, and how much comes in without loss.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "Contenders.h"
#include "Measure.h"
#include "ModuleSide.h"
#include "Scenarios.h"

namespace {

Contender bareLoop() {
    return makeOurs("bare epoll", receiveEpoll);
}
Contender moduleItself() {
    return makeOurs("module", moduleReceive);
}
Contender moduleReadSlowly() {
    return makeOurs("module, read every 10 ms", moduleReceiveSlowly);
}

// A receiver at work, with the count of what it lost.
class Reception {
  public:
    Reception(const Contender& receiver, uint32_t channels)
        : counts_(receiver.ours), children_(start(receiver, channels)) {
        constexpr double kPatience_s = 15.0;
        if (counts_ ? !waitFor(kPatience_s, [&] { return board().ready != 0; })
                    : !waitForPorts(channels, kPatience_s))
            throw Failure("it does not open its sockets");
    }

    const Children& children() const { return children_; }

    // Ends the sender; all that is on its way has then arrived or is lost.
    void settle(Child& sender) {
        board().stop = 1;
        if (!sender.join(10.0))
            throw Failure("the sender does not end");
        if (counts_)
            waitFor(0.5, [&] { return total(board().received) == total(board().sent); });
        board().stop = 0;
    }

    uint64_t lost() const {
        return counts_ ? total(board().sent) - total(board().received)
                       : udpCount("RcvbufErrors") - overflowsBefore_;
    }

  private:
    static Children start(const Contender& receiver, uint32_t channels) {
        clearBoard();
        return receiver.start({channels, 0.0}, 0.0);
    }

    // Knocks until every knock finds a socket.
    bool waitForPorts(uint32_t channels, double seconds) {
        return waitFor(seconds, [&] {
            const uint64_t before = udpCount("NoPorts");
            Child knock = Child::fork(Place::Traffic, [&] { sendPaced(board(), {channels, 1e6}); });
            sleepFor(0.1);
            settle(knock);
            return udpCount("NoPorts") == before;
        });
    }

    const bool counts_;
    const uint64_t overflowsBefore_ = udpCount("RcvbufErrors");
    const Children children_;
};

// The rings' memory is there once datagrams have gone through all of it; until then every new page
// costs more than the datagrams on it.
void fillRings(Reception& reception, uint32_t channels) {
    constexpr double kSeconds = 0.8;
    constexpr double kRate_bps = 70e6;  // more than 4 MiB in that time
    Child sender = Child::fork(Place::Traffic, [=] { sendPaced(board(), {channels, kRate_bps}); });
    sleepFor(kSeconds);
    reception.settle(sender);
}

using Send = void (*)(Board&, Load);

Values measureCost(const Contender& receiver, Load load, double seconds, Send send = sendPaced) {
    constexpr double kWarmUp_s = 0.5;
    Reception reception(receiver, load.channels);
    if (receiver.ours)
        fillRings(reception, load.channels);
    const uint64_t lostBefore = reception.lost();
    Child sender = Child::fork(Place::Traffic, [&] { send(board(), load); });
    sleepFor(kWarmUp_s);
    const Meter meter(reception.children());
    const uint64_t sentBefore = total(board().sent);
    sleepFor(seconds);
    Values values = costOf(meter.read(), static_cast<double>(total(board().sent) - sentBefore));
    double memory_KiB = 0.0;
    for (const Child& child : reception.children())
        memory_KiB += memoryOf(child.pid(), "Pss");
    reception.settle(sender);
    values.push_back({"lost", static_cast<double>(reception.lost() - lostBefore), Merge::Worst});
    values.push_back({"PSS MiB", memory_KiB / 1024});
    return values;
}

// One try at an offered rate.
struct Try {
    bool reached;  // the sender kept up
    bool lossless;
    double rate_bps;  // that was really sent
};

Try tryOnce(Reception& reception, Load load, bool trains, double seconds) {
    constexpr double kReached = 0.97;
    const uint64_t sentBefore = total(board().sent);
    const uint64_t lostBefore = reception.lost();
    const int64_t start = now_ns();
    Child sender = Child::fork(Place::Traffic, [&] { sendFlood(board(), load, trains); });
    sleepFor(seconds);
    const double elapsed_s = static_cast<double>(now_ns() - start) * 1e-9;
    const auto sent = static_cast<double>(total(board().sent) - sentBefore);
    reception.settle(sender);
    const double rate = sent * kPayloadBytes * 8 / elapsed_s;
    return {rate >= kReached * load.rate_bps * load.channels, reception.lost() == lostBefore, rate};
}

// Another program may have held up the sender, which says nothing of the receiver.
Try tryRate(Reception& reception, Load load, bool trains, double seconds) {
    Try result = tryOnce(reception, load, trains, seconds);
    for (int more = 2; more > 0 && result.lossless && !result.reached; --more)
        result = tryOnce(reception, load, trains, seconds);
    return result;
}

// Halves the interval, on a scale of ratios, until it is as narrow as the measurement is exact.
Values searchCapacity(const Contender& receiver, uint32_t channels, bool trains, double seconds) {
    constexpr double kExact = 1.04;
    Reception reception(receiver, channels);
    double lowest = 3e8;
    double highest = 30e9;
    double best = 0.0;
    bool limited = false;  // by the sender: it did not reach the next higher rate
    while (highest / lowest > kExact) {
        const double rate = std::sqrt(lowest * highest);
        const Try result = tryRate(reception, {channels, rate / channels}, trains, seconds);
        if (result.lossless)
            lowest = std::max(lowest, std::min(rate, result.rate_bps));
        if (!result.lossless || !result.reached)
            highest = rate;
        if (!result.lossless || !result.reached)
            limited = result.lossless;
        if (result.lossless)
            best = std::max(best, result.rate_bps);
    }
    return {{"Mbit/s", best * 1e-6},
            {"datagrams/s", best / kPayloadBytes / 8},
            {"sender's limit", limited ? 1.0 : 0.0, Merge::Worst}};
}

void capacity(Report& report, const Settings& settings, uint32_t channels, bool trains) {
    const auto side = [&](const Contender& receiver) {
        return Side{receiver.name, [=, &settings] {
                        return searchCapacity(receiver, channels, trains,
                                              settings.quick ? 0.4 : 0.8);
                    }};
    };
    Rows rows = alternate({side(bareLoop()), side(moduleItself())}, settings.rounds);
    std::vector<Contender> peers;
    if (settings.peers && channels == 1 && trains)
        peers = peerReceivers();
    for (const Contender& peer : peers)
        for (const Row& row : alternate({side(peer)}, 1))
            rows.push_back(row);
    addRatio(rows, bareLoop().name, "Mbit/s");
    const std::string what =
        fmt::format("{}, {}", channels == 1 ? "one channel" : "16 channels together",
                    trains ? "trains of 16 datagrams" : "single datagrams");
    report.table("highest rate without loss, " + what,
                 "sender's limit: 1 = the sender could not offer more", rows);
    report.goal("2", "no loss, " + what + ": module / bare epoll",
                ratio(rows, "module", bareLoop().name, "Mbit/s"), Report::Bound::AtLeast, 1.0);
}

}  // namespace

Values costOf(const Meter::Usage& usage, double datagrams) {
    return {{kCost, usage.cpu_s * 1e6 / datagrams},
            {kCore, usage.cpu_s / usage.elapsed_s * 100},
            {kWakeups, usage.wakeups / usage.elapsed_s},
            {"datagrams/s", datagrams / usage.elapsed_s}};
}

Values receiveOnce(bool module, Load load, double seconds) {
    return measureCost(module ? moduleItself() : bareLoop(), load, seconds);
}

void benchReceive(Report& report, const Settings& settings) {
    const auto measure = [&](const std::string& how, const std::vector<Contender>& receivers,
                             Send send) {
        std::vector<Side> sides;
        sides.reserve(receivers.size());
        for (const Contender& receiver : receivers)
            sides.push_back({receiver.name, [=, &settings] {
                                 return measureCost(receiver, kLoad, settings.seconds, send);
                             }});
        Rows rows = alternate(sides, settings.rounds);
        addRatio(rows, bareLoop().name, kCost);
        report.table("receiving 16 x 8 Mbit/s, " + how,
                     "module: its housekeeping and a host thread that reads all channels, every "
                     "1 ms, included",
                     rows);
        for (const Contender& module : {moduleItself(), moduleReadSlowly()})
            report.goal("1", fmt::format("receiving, {}, CPU: {} / bare epoll", how, module.name),
                        ratio(rows, module.name, bareLoop().name, kCost), Report::Bound::AtMost,
                        1.3);
        return rows;
    };
    std::vector<Contender> receivers{bareLoop(), makeOurs("bare 1 ms drain", receiveDrain),
                                     moduleItself(), moduleReadSlowly()};
    if (settings.peers)
        std::ranges::move(peerReceivers(), std::back_inserter(receivers));
    for (const auto& [how, send] :
         {std::pair<const char*, Send>{"a burst a millisecond", sendPaced},
          {"evenly spread", sendSpread}}) {
        const Rows rows = measure(how, receivers, send);
        std::optional<double> best;  // of the peers: the ratio is the largest
        for (const std::string peer : kPeers)
            if (const auto against = ratio(rows, "module", peer, kCost))
                best = std::max(best.value_or(0.0), *against);
        report.goal("1", fmt::format("receiving, {}, CPU: module / best peer", how), best,
                    Report::Bound::AtMost, 0.4);
    }
}

void benchCapacity(Report& report, const Settings& settings) {
    for (const bool trains : {true, false})
        for (const uint32_t channels : {1u, kStreams})
            if (trains || !settings.quick)
                capacity(report, settings, channels, trains);
}
