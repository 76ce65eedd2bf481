#include "engine/PacedStream.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "base/Errors.h"

namespace {

using namespace std::chrono_literals;

constexpr size_t kChunkBytes = size_t{64} * 1024;
constexpr size_t kMostAhead = size_t{64} * 1024 * 1024;  // where PCRs are rare, or the rate is high
constexpr auto kStopLatency = 50ms;
constexpr auto kStretch = 250ms;    // shorter, and the largest pictures would each be one
constexpr auto kFineStretch = 1ms;  // from one PCR to the next
constexpr auto kTolerance = 40ms;   // no constant rate is that far off
constexpr double kSameRate = 0.002;
constexpr double kHeadroom = 1.25;
constexpr double kHeadroomOfPipe = 2.0;
constexpr auto kMeasureTime = 1s;
constexpr size_t kMeasureBytes = size_t{8} * 1024 * 1024;

double seconds(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

}  // namespace

PacedStream::PacedStream(const SendJob& job, bool keepsRate)
    : given_bps_(job.bitrate_bps),
      keepsRate_(keepsRate),
      start_(job.start.value_or(0ms)),
      duration_(job.duration),
      source_(job.input, job.loop) {}

void PacedStream::open(StopSignal& stop) {
    source_.open(false, stop);
    if (start_ > 0ns || duration_)
        time_.emplace(source_.packetSize(), given_bps_);
    goToStart(stop);
    if (given_bps_)
        bitrate_bps_ = *given_bps_;
    else
        measure(stop);
}

void PacedStream::measure(StopSignal& stop) {
    follower_.emplace(source_.packetSize(), keepsRate_ ? kFineStretch : kStretch);
    if (keepsRate_)
        steady_.emplace(source_.packetSize());
    while (!stop.requested() && !knowsRate() && !inputEnded() && available() < kMostAhead)
        readAhead(available() + kChunkBytes, kStopLatency);
    if (stop.requested())
        return;
    if (follower_->point().bytes == 0)
        follower_->finish();
    notePoint();
    const RateFollower::Point point = follower_->point();
    if (point.bytes == 0)
        throw Failure(fmt::format("{} has no PCRs to tell its rate by; give it with --bitrate",
                                  source_.name()));
    const double rate_bps = static_cast<double>(point.bytes) * 8.0 / seconds(point.time);
    if (rate_bps > UINT32_MAX)
        throw Failure(fmt::format("by its PCRs, {} has {:.0f} bit/s; give its rate with --bitrate",
                                  source_.name(), rate_bps));
    bitrate_bps_ = std::max(1u, static_cast<uint32_t>(std::llround(rate_bps)));
    if (!keepsRate_)
        return;
    varies_ = std::any_of(points_.begin(), points_.end(), [&](const RateFollower::Point& at) {
        const std::chrono::duration<double> even(static_cast<double>(at.bytes) * 8.0 / rate_bps);
        return std::chrono::abs(even - at.time) > kTolerance;
    });
    if (varies_)
        raise();
}

// By the second: the buffer absorbs shorter peaks, and a channel that was fed less than its rate
// makes up for it later. Of a pipe, little has been seen.
uint32_t PacedStream::raise() {
    double most_bps = bitrate_bps_;
    auto begin = points_.begin();
    for (const RateFollower::Point& end : points_) {
        for (; end.time - begin->time >= kMeasureTime; ++begin)
            most_bps = std::max(most_bps, static_cast<double>(end.bytes - begin->bytes) * 8.0 /
                                              seconds(end.time - begin->time));
    }
    most_bps *= source_.isFile() ? kHeadroom : kHeadroomOfPipe;
    bitrate_bps_ = static_cast<uint32_t>(std::min(most_bps, double{UINT32_MAX}));
    return bitrate_bps_;
}

// A rate that is kept throughout has to be a good one.
bool PacedStream::knowsRate() const {
    return follower_->point().time >= kMeasureTime &&
           (!keepsRate_ || !source_.isFile() || available() >= kMeasureBytes);
}

// Reads all that is skipped, since only the clock in it tells how much that is.
void PacedStream::goToStart(StopSignal& stop) {
    if (start_ == 0ns)
        return;
    std::chrono::nanoseconds time{0};
    while (!stop.requested()) {
        const auto packets = source_.take(kChunkBytes, kStopLatency);
        for (size_t at = 0; at < packets.size(); at += source_.packetSize()) {
            time = time_->add(packets.data() + at);
            if (time < start_)
                continue;
            source_.putBack(packets.size() - at);
            source_.loopFromHere();
            time_.emplace(source_.packetSize(), given_bps_);
            return;
        }
        if (!source_.ended())
            continue;
        if (!time_->isKnown())
            throw Failure(
                fmt::format("{} has no PCRs to tell its time by; give --bitrate", source_.name()));
        throw Failure(fmt::format("{} ends after {:.1f} s, before the start at {:.1f} s",
                                  source_.name(), seconds(time), seconds(start_)));
    }
}

// With a point behind all that was handed out, the pace is known when the wire comes to any of it.
bool PacedStream::knowsPaceOf(uint64_t bytes) const {
    return !follower_ || follower_->point().bytes >= bytes;
}

void PacedStream::readAhead(size_t limit, std::chrono::milliseconds wait) {
    if (begin_ >= kChunkBytes && begin_ >= available()) {
        ahead_.erase(ahead_.begin(), ahead_.begin() + static_cast<std::ptrdiff_t>(begin_));
        begin_ = 0;
    }
    // A rate that is about to rise or fall is to be known before the channel is handed too much;
    // but reading much at a time would let the channel run dry.
    if (steady_)
        limit = std::max(limit, std::min(kMeasureBytes, available() + 1));
    while (!inputEnded() &&
           (available() < limit || (!knowsPaceOf(taken_ + limit) && available() < kMostAhead))) {
        const auto packets = source_.take(kChunkBytes, available() == 0 ? wait : 0ms);
        if (packets.empty() && !source_.ended())
            return;
        add(packets);
    }
    if (inputEnded() && follower_ && !std::exchange(finished_, true)) {
        follower_->finish();
        notePoint();
    }
}

void PacedStream::add(std::span<const uint8_t> packets) {
    for (; !packets.empty(); packets = packets.subspan(source_.packetSize())) {
        if (duration_ && time_->add(packets.data()) >= *duration_) {
            complete_ = true;
            return;
        }
        if (follower_) {
            follower_->add(packets.data());
            notePoint();
        }
        if (steady_) {
            steady_->add(packets.data());
            const auto told = steady_->change();
            varies_ =
                varies_ || (told && bitrate_bps_ != 0 &&
                            std::abs(*told / static_cast<double>(bitrate_bps_) - 1.0) > kSameRate);
        }
        ahead_.insert(ahead_.end(), packets.begin(),
                      packets.begin() + static_cast<std::ptrdiff_t>(source_.packetSize()));
    }
}

void PacedStream::notePoint() {
    const auto& point = follower_->point();
    if (point.bytes > (points_.empty() ? passed_ : points_.back()).bytes)
        points_.push_back(point);
}

std::optional<PacedStream::Stretch> PacedStream::stretch(uint64_t byte) {
    while (!points_.empty() && points_.front().bytes <= byte) {
        passed_ = points_.front();
        points_.pop_front();
    }
    if (points_.empty())
        return std::nullopt;
    return Stretch{passed_, points_.front()};
}

std::span<const uint8_t> PacedStream::take(size_t limit, std::chrono::milliseconds wait) {
    readAhead(limit, wait);
    const size_t most = limit / source_.packetSize() * source_.packetSize();
    const auto packets =
        std::span<const uint8_t>(ahead_).subspan(begin_, std::min(most, available()));
    begin_ += packets.size();
    taken_ += packets.size();
    return packets;
}
