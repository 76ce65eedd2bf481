#include "engine/MonitorChain.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "base/Errors.h"
#include "base/Quantity.h"

namespace {

using namespace std::chrono_literals;

constexpr Chain::Clock::duration kInterval = 40ms;
constexpr Chain::Clock::duration kShortestInterval = 1ms;
constexpr Chain::Clock::duration kFirstInterval = 5ms;  // before the rate is known
// At a time, before the other streams have their turn.
constexpr int kMostBatches = 16;
constexpr auto kLongestTurn = 20ms;
constexpr double kMostFilled = 0.25;
constexpr double kHardlyFilled = kMostFilled / 4;
constexpr auto kSettled = 2ms;  // what the kernel has stamped is in the socket by then
constexpr auto kRetry = 1s;
constexpr auto kGrace = 3s;  // until a socket that is missing is reported

std::chrono::milliseconds whole(std::chrono::nanoseconds time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time);
}

}  // namespace

MonitorChain::MonitorChain(const MonitorJob& job, MonitorMeans& means,
                           std::optional<std::chrono::milliseconds> patience)
    : job_(job),
      url_(parseStreamUrl(job.url)),
      means_(means),
      patience_(patience),
      monitor_(job.limits),
      interval_(kFirstInterval) {}

std::optional<Chain::Clock::time_point> MonitorChain::run(Clock::time_point now) {
    if (socket_)
        renew(now);
    if (!socket_ && now >= retry_)
        open(now);
    watch(now);
    const auto next = socket_ ? take(now) : now + kInterval;
    // While more waits in the socket, its time has not come.
    if (next > now) {
        ticked_ = (now - kSettled).time_since_epoch();
        monitor_.tick(ticked_);
    }
    if (opened_ && job_.duration && now - *opened_ >= *job_.duration)
        return std::nullopt;
    return next;
}

void MonitorChain::open(Clock::time_point now) {
    retry_ = now + kRetry;
    try {
        const auto url = address_.poll(url_);
        if (!url) {
            trouble_ = fmt::format("the address of {} is not known yet", url_.text);
            return;
        }
        checkSource(*url);
        looks_ = means_.network.look(now);
        socket_.emplace(*url);
        interval_ = kFirstInterval;
        opened_ = opened_.value_or(now);
    } catch (const std::runtime_error& failure) {
        trouble_ = failure.what();
    }
}

void MonitorChain::renew(Clock::time_point now) {
    const uint64_t looks = means_.network.look(now);
    if (std::exchange(looks_, looks) == looks || socket_->renew(means_.network.interfaces()))
        return;
    socket_.reset();
    trouble_ = noSocket(url_).what();
    retry_ = now + kRetry;
}

void MonitorChain::watch(Clock::time_point now) {
    if (socket_) {
        socketSeen_ = now;
        if (std::exchange(outageReported_, false))
            events_.push_back(fmt::format("{} is received again", url_.text));
    } else if (!opened_ && patience_ && now - started_ >= *patience_) {
        throw Failure(trouble_);
    } else if (now - socketSeen_ >= kGrace && !std::exchange(outageReported_, true)) {
        events_.push_back(
            fmt::format("{}{} Trying again.", trouble_, trouble_.ends_with('?') ? "" : "."));
    }
}

void MonitorChain::add(const ts::Datagram& datagram) {
    ts::Datagram settled = datagram;
    settled.arrival = std::max(settled.arrival, ticked_);
    monitor_.add(settled);
}

// Returns when more is to be taken.
Chain::Clock::time_point MonitorChain::take(Clock::time_point now) {
    double filled = 0.0;
    for (int i = 0; i < kMostBatches && Clock::now() - now < kLongestTurn; ++i) {
        const auto taken = socket_->receive(
            *means_.batch, [this](const ts::Datagram& datagram) { add(datagram); });
        filled += taken.ofBuffer;
        monitor_.socketDrops(socket_->takeDropped());
        if (taken.datagrams == DatagramBatch::kMessages)
            continue;
        if (filled > kMostFilled)
            interval_ = std::max(interval_ / 2, kShortestInterval);
        else if (filled < kHardlyFilled)
            interval_ = std::min(interval_ * 2, kInterval);
        return now + interval_;
    }
    return now;
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
