#include "engine/MonitorChain.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "base/Errors.h"
#include "base/Quantity.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kSettled = 2ms;  // what the kernel has stamped is in the socket by then
constexpr auto kGrace = 3s;     // until a socket that is missing is reported

std::chrono::milliseconds whole(std::chrono::nanoseconds time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time);
}

}  // namespace

MonitorChain::MonitorChain(const MonitorJob& job, SocketMeans& means,
                           std::optional<std::chrono::milliseconds> patience)
    : job_(job),
      patience_(patience),
      monitor_(job.limits),
      socket_(parseStreamUrl(job.url), means) {}

std::optional<Chain::Clock::time_point> MonitorChain::run(Clock::time_point now) {
    socket_.attend(now);
    watch(now);
    const auto next = take(now);
    // While more waits in the socket, its time has not come.
    if (next > now) {
        ticked_ = (now - kSettled).time_since_epoch();
        monitor_.tick(ticked_);
    }
    const auto opened = socket_.firstOpened();
    if (opened && job_.duration && now - *opened >= *job_.duration)
        return std::nullopt;
    return next;
}

void MonitorChain::watch(Clock::time_point now) {
    if (socket_.isOpen()) {
        socketSeen_ = now;
        if (std::exchange(outageReported_, false))
            events_.push_back(fmt::format("{} is received again", job_.url));
    } else if (!socket_.firstOpened() && patience_ && now - started_ >= *patience_) {
        throw Failure(socket_.trouble());
    } else if (now - socketSeen_ >= kGrace && !std::exchange(outageReported_, true)) {
        events_.push_back(socket_.sentence() + " Trying again.");
    }
}

void MonitorChain::add(const ts::Datagram& datagram) {
    ts::Datagram settled = datagram;
    settled.arrival = std::max(settled.arrival, ticked_);
    monitor_.add(settled);
}

Chain::Clock::time_point MonitorChain::take(Clock::time_point now) {
    const auto next = socket_.take(now, [this](const ts::Datagram& datagram) { add(datagram); });
    monitor_.socketDrops(socket_.takeDropped());
    return next;
}

std::string MonitorChain::figures() const {
    const ts::MonitorReport report = monitor_.report();
    uint64_t raised = 0;
    for (const ts::CheckState& check : report.checks)
        raised += check.raised ? 1 : 0;
    return fmt::format(
        "{} {}, {} lost, {}, {} dropped here{}", formatBytes(report.stream.bytes),
        report.signal ? formatBitrate(report.bitrate_bps.value_or(0)) : "no signal",
        report.delivery.lost, counted(report.stream.continuityErrors, "continuity error"),
        report.reception.counts.socketDrops, raised > 0 ? ", " + counted(raised, "ALARM") : "");
}

std::string MonitorChain::describe(Clock::time_point now) {
    return fmt::format("{}  {}", formatTime(whole(now - started_)), figures());
}

std::string MonitorChain::summary() const {
    return {};
}
