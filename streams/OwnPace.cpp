#include "OwnPace.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

namespace ts {

namespace {

using namespace std::chrono_literals;

constexpr auto kStretch = 100ms;    // as often as PCRs have to come at least
constexpr auto kMeasureTime = 1s;   // holds large and small pictures in equal parts
constexpr auto kTolerance = 40ms;   // no constant rate is that far off within a second
constexpr auto kMostDrift = 100ms;  // nor that far later on, unless the drift is very slow:
constexpr auto kDriftTime = 50s;    // then the rate was not measured well enough
constexpr auto kPcrPatience = 1s;   // what follows the last PCR does not wait longer
constexpr double kHeadroom = 1.25;  // above the fastest stretch
constexpr size_t kRoomKept = size_t{512} * 1024;
constexpr size_t kMostAhead = size_t{16} * 1024 * 1024;

Time timeAt(uint64_t bytes, double bitrate_bps) {
    return Time(std::llround(static_cast<double>(bytes) * 8e9 / bitrate_bps));
}

double rateOf(const RateFollower::Point& begin, const RateFollower::Point& end) {
    return static_cast<double>(end.bytes - begin.bytes) * 8e9 /
           static_cast<double>((end.time - begin.time).count());
}

uint32_t whole(double bitrate_bps) {
    return static_cast<uint32_t>(std::llround(std::clamp(bitrate_bps, 1.0, 4294967295.0)));
}

}  // namespace

OwnPace::OwnPace(size_t packetSize, std::optional<uint32_t> bitrate_bps, bool keepsRate)
    : packetSize_(packetSize),
      datagramBytes_(kPacketsPerDatagram * packetSize),
      keepsRate_(keepsRate),
      rate_bps_(bitrate_bps),
      linear_(bitrate_bps.has_value()) {
    if (!bitrate_bps)
        follower_.emplace(packetSize, kStretch);
}

void OwnPace::push(std::span<const uint8_t> packets, Time arrival) {
    if (begin_ >= bytes_.size() / 2) {
        bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(begin_));
        begin_ = 0;
        // The first second, by which the rate is told, takes more room than what follows.
        if (bytes_.capacity() > kRoomKept && bytes_.capacity() / 8 > bytes_.size())
            bytes_.shrink_to_fit();
    }
    bytes_.insert(bytes_.end(), packets.begin(), packets.end());
    pushed_ += packets.size();
    arrival_ = arrival;
    if (!silentSince_)
        silentSince_ = arrival;
    if (follower_) {
        for (size_t at = 0; at < packets.size(); at += packetSize_) {
            follower_->add(packets.data() + at);
            note(follower_->point());
        }
        // No more is read when there is no room, so a fast stream has to be told by less.
        const bool full = bytes_.size() - begin_ >= kMostAhead && !points_.empty();
        if (!rate_bps_ && (full || follower_->point().time >= kMeasureTime))
            measure();
    }
    if (rate_bps_ && !origin_)
        origin_ = arrival;
}

void OwnPace::finish() {
    finished_ = true;
    if (follower_) {
        follower_->finish();
        note(follower_->point());
        if (!rate_bps_ && follower_->point().bytes > 0)
            measure();
    }
    if (bytes_.size() > begin_)
        appendNullPackets(bytes_, packetSize_,
                          (kPacketsPerDatagram - pushed_ / packetSize_ % kPacketsPerDatagram) %
                              kPacketsPerDatagram);
    if (rate_bps_ && !origin_)
        origin_ = arrival_;
}

void OwnPace::measure() {
    const double mean_bps = rateOf({}, points_.back());
    rate_bps_ = whole(mean_bps);
    if (!keepsRate_)
        return;
    linear_ = std::all_of(points_.begin(), points_.end(), [&](const Point& point) {
        return std::chrono::abs(timeAt(point.bytes, mean_bps) - point.time) <= kTolerance;
    });
    varies_ = !linear_;
    even_ = points_.back();
    if (varies_) {
        double most_bps = 0.0;
        for (Point begin; const Point& end : points_)
            most_bps = std::max(most_bps, rateOf(std::exchange(begin, end), end));
        rate_bps_ = whole(most_bps * kHeadroom);
    }
}

void OwnPace::note(const Point& point) {
    const Point& last = points_.empty() ? passed_ : points_.back();
    if (point.bytes <= last.bytes)
        return;
    stretch_bps_ = rateOf(last, point);
    points_.push_back(point);
    silentSince_.reset();
    if (linear_ && rate_bps_ && !isEven(point)) {
        // What has been pulled left by the rate; what follows leaves by the clock.
        linear_ = false;
        varies_ = true;
        *origin_ += timeAt(even_.bytes, *rate_bps_) - even_.time;
    }
}

bool OwnPace::isEven(const Point& point) {
    const Time drift = timeAt(point.bytes - even_.bytes, *rate_bps_) - (point.time - even_.time);
    if (std::chrono::abs(drift) <= kMostDrift)
        return true;
    if (point.time - even_.time < kDriftTime)
        return false;
    even_ = point;
    return true;
}

void OwnPace::passPoints() {
    while (!points_.empty() && points_.front().bytes <= pulled_ &&
           (points_.size() > 1 || !linear_)) {
        passed_ = points_.front();
        points_.pop_front();
    }
}

Time OwnPace::timeOf(uint64_t byte) const {
    if (linear_)
        return timeAt(byte, *rate_bps_);
    if (points_.empty())
        return passed_.time + timeAt(byte - passed_.bytes, stretch_bps_);
    const Point& end = points_.front();
    if (byte >= end.bytes)
        return end.time + timeAt(byte - end.bytes, stretch_bps_);
    return passed_.time + timeAt(byte - passed_.bytes, rateOf(passed_, end));
}

// Up to where the times are known.
Time OwnPace::coveredTo() const {
    if (linear_ && !follower_)
        return timeAt(pushed_, *rate_bps_);
    const Point& last = points_.empty() ? passed_ : points_.back();
    if (linear_)  // as far as it is confirmed
        return timeAt(
            silentSince_ && arrival_ - *silentSince_ > kPcrPatience ? pushed_ : last.bytes,
            *rate_bps_);
    if (!silentSince_ || arrival_ - *silentSince_ <= kPcrPatience)
        return last.time;
    return last.time + timeAt(pushed_ - last.bytes, stretch_bps_);
}

bool OwnPace::needsInput(Time until) const {
    if (finished_ || bytes_.size() - begin_ >= kMostAhead)
        return false;
    return !rate_bps_ || !origin_ || *origin_ + coveredTo() <= until || !complete();
}

std::optional<Time> OwnPace::next() const {
    if (!rate_bps_ || !origin_ || !complete())
        return std::nullopt;
    const Time time = timeOf(pulled_);
    if (!finished_ && bytes_.size() - begin_ < kMostAhead && time > coveredTo())
        return std::nullopt;
    return *origin_ + time;
}

size_t OwnPace::pull(std::span<uint8_t> datagrams, Time until) {
    size_t written = 0;
    while (written + datagramBytes_ <= datagrams.size()) {
        passPoints();
        const auto due = next();
        if (!due || *due > until)
            break;
        std::memcpy(datagrams.data() + written, bytes_.data() + begin_, datagramBytes_);
        begin_ += datagramBytes_;
        pulled_ += datagramBytes_;
        written += datagramBytes_;
    }
    return written;
}

std::optional<uint32_t> OwnPace::rate() const {
    if (linear_ || keepsRate_ || !rate_bps_ || points_.empty())
        return rate_bps_;
    return whole(rateOf(passed_, points_.front()));
}

ShaperStatus OwnPace::status() const {
    ShaperStatus status;
    status.rateKnown = rate_bps_.has_value();
    status.rate_bps = rate().value_or(0);
    status.untouched = true;
    return status;
}

}  // namespace ts
