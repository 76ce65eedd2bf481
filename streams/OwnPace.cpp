#include "OwnPace.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

namespace ts {

namespace {

using namespace std::chrono_literals;

constexpr uint64_t kStretch = kPcrHz / 10;  // as often as PCRs have to come at least
constexpr auto kMeasureTime = 1s;           // holds large and small pictures in equal parts
constexpr auto kTolerance = 40ms;           // no constant rate is that far off within a second
constexpr auto kMostDrift = 100ms;          // nor that far later on, unless the drift is very slow:
constexpr auto kDriftTime = 50s;            // then the rate was not measured well enough
constexpr auto kPcrPatience = 1s;           // what follows the last PCR does not wait longer
constexpr double kHeadroom = 1.25;          // above the fastest stretch
constexpr size_t kMostAhead = size_t{16} * 1024 * 1024;

Time timeAt(uint64_t bytes, double bitrate_bps) {
    return Time(std::llround(static_cast<double>(bytes) * 8e9 / bitrate_bps));
}

uint32_t whole(double bitrate_bps) {
    return static_cast<uint32_t>(std::llround(std::clamp(bitrate_bps, 1.0, 4294967295.0)));
}

}  // namespace

OwnPace::OwnPace(size_t packetSize, std::optional<uint32_t> bitrate_bps, bool keepsRate)
    : packetSize_(packetSize),
      datagramBytes_(kPacketsPerDatagram * packetSize),
      isGiven_(bitrate_bps.has_value()),
      keepsRate_(keepsRate),
      rate_bps_(bitrate_bps),
      linear_(isGiven_),
      intervals_(packetSize) {}

void OwnPace::push(std::span<const uint8_t> packets, Time arrival) {
    waiting_.put(packets);
    pushed_ += packets.size();
    arrival_ = arrival;
    if (!silentSince_)
        silentSince_ = arrival;
    for (size_t at = 0; at < packets.size() && !isGiven_; at += packetSize_)
        follow(packets.data() + at);
    // No more is read when there is no room, so a fast stream has to be told by less.
    if (!rate_bps_ && !points_.empty() &&
        (waiting_.size() >= kMostAhead || last().time >= kMeasureTime))
        measure();
    if (rate_bps_ && !origin_)
        origin_ = arrival;
}

void OwnPace::finish() {
    finished_ = true;
    if (stretchTicks_ > 0)
        endStretch(intervals_.bytes());
    if (!rate_bps_ && !points_.empty())
        measure();
    if (waiting_.size() > 0) {
        std::vector<uint8_t> padding;
        appendNullPackets(padding, packetSize_,
                          (kPacketsPerDatagram - pushed_ / packetSize_ % kPacketsPerDatagram) %
                              kPacketsPerDatagram);
        waiting_.put(padding);
    }
    if (rate_bps_ && !origin_)
        origin_ = arrival_;
}

double OwnPace::rateOf(const Point& begin, const Point& end) {
    return static_cast<double>(end.bytes - begin.bytes) * 8e9 /
           static_cast<double>((end.time - begin.time).count());
}

void OwnPace::follow(const uint8_t* packet) {
    const uint64_t position = intervals_.bytes();
    const auto interval = intervals_.add(packet);
    if (!interval)
        return;
    stretchTicks_ += interval->ticks;
    stretchBytes_ += interval->bytes;
    if (stretchTicks_ >= kStretch)
        endStretch(position);
}

void OwnPace::endStretch(uint64_t bytes) {
    stretch_bps_ = static_cast<double>(stretchBytes_ * 8) * double{kPcrHz} /
                   static_cast<double>(stretchTicks_);
    stretchTicks_ = stretchBytes_ = 0;
    const Point end = points_.emplace_back(
        Point{bytes, last().time + timeAt(bytes - last().bytes, stretch_bps_)});
    silentSince_.reset();
    if (linear_ && rate_bps_ && !isEven(end)) {
        // What has been pulled left by the rate; what follows leaves by the clock.
        linear_ = false;
        varies_ = true;
        *origin_ += timeAt(even_.bytes, *rate_bps_) - even_.time;
    }
    raise(stretch_bps_);
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
    for (Point begin; const Point& end : points_)
        raise(rateOf(std::exchange(begin, end), end));
}

// So that the ceiling is above that rate.
void OwnPace::raise(double bitrate_bps) {
    if (varies_)
        rate_bps_ = std::max(*rate_bps_, whole(bitrate_bps * kHeadroom));
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
    if (isGiven_)
        return timeAt(pushed_, *rate_bps_);
    const bool silent = silentSince_ && arrival_ - *silentSince_ > kPcrPatience;
    if (linear_)  // as far as it is confirmed
        return timeAt(silent ? pushed_ : last().bytes, *rate_bps_);
    return last().time + (silent ? timeAt(pushed_ - last().bytes, stretch_bps_) : Time(0));
}

bool OwnPace::needsInput(Time until) const {
    if (finished_ || waiting_.size() >= kMostAhead)
        return false;
    return !rate_bps_ || !origin_ || *origin_ + coveredTo() <= until || !complete();
}

std::optional<Time> OwnPace::next() const {
    if (!rate_bps_ || !origin_ || !complete())
        return std::nullopt;
    const Time time = timeOf(pulled_);
    if (!finished_ && waiting_.size() < kMostAhead && time > coveredTo())
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
        std::memcpy(datagrams.data() + written, waiting_.data(), datagramBytes_);
        waiting_.drop(datagramBytes_);
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
