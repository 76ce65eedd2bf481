#include "engine/StreamSocket.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "base/Errors.h"

namespace {

using namespace std::chrono_literals;

constexpr StreamSocket::Clock::duration kInterval = 40ms;
constexpr StreamSocket::Clock::duration kShortestInterval = 1ms;
constexpr StreamSocket::Clock::duration kFirstInterval = 5ms;  // before the rate is known
// At a time, before the other streams have their turn.
constexpr int kMostBatches = 16;
constexpr auto kLongestTurn = 20ms;
constexpr double kMostFilled = 0.25;
constexpr double kHardlyFilled = kMostFilled / 4;
constexpr auto kReopenInterval = 1s;

}  // namespace

void StreamSocket::attend(Clock::time_point now) {
    if (socket_)
        renew(now);
    if (!socket_ && now >= retry_)
        open(now);
}

void StreamSocket::open(Clock::time_point now) {
    retry_ = now + kReopenInterval;
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

void StreamSocket::renew(Clock::time_point now) {
    const uint64_t looks = means_.network.look(now);
    if (std::exchange(looks_, looks) == looks || socket_->renew(means_.network.interfaces()))
        return;
    socket_.reset();
    trouble_ = noSocket(url_).what();
    retry_ = now + kReopenInterval;
}

std::string StreamSocket::sentence() const {
    return trouble_ + (trouble_.ends_with('?') ? "" : ".");
}

StreamSocket::Clock::time_point StreamSocket::take(
    Clock::time_point now, const std::function<void(const ts::Datagram&)>& use) {
    if (!socket_)
        return now + kInterval;
    double filled = 0.0;
    // The streams in front may have taken long, and this one has its turn all the same.
    const auto begin = Clock::now();
    for (int i = 0; i == 0 || (i < kMostBatches && Clock::now() - begin < kLongestTurn); ++i) {
        const auto taken = socket_->receive(*means_.batch, use);
        filled += taken.ofBuffer;
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
