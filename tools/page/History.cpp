#include "page/History.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr size_t kGrowth = 450;  // points: those that live shortly take little

// Sums up the seconds from `begin` on.
template <typename At>
HistoryPoint summary(const At& at, int64_t begin, int64_t seconds) {
    HistoryPoint sum;
    float rate = 0;
    int known = 0;
    for (int64_t second = begin; second < begin + seconds; ++second) {
        const HistoryPoint point = at(second);
        if (!std::isnan(point.bitrate_bps)) {
            rate += point.bitrate_bps;
            ++known;
        }
        sum.jitter_ms = std::fmax(sum.jitter_ms, point.jitter_ms);
        if (!std::isnan(point.errors))
            sum.errors = std::isnan(sum.errors) ? point.errors : sum.errors + point.errors;
    }
    if (known > 0)
        sum.bitrate_bps = rate / static_cast<float>(known);
    return sum;
}

}  // namespace

void History::Series::put(int64_t second, const HistoryPoint& point) {
    const auto place = static_cast<size_t>((second - begin_) % kSeconds);
    if (place < points_.size()) {
        points_[place] = point;
        return;
    }
    if (points_.size() == points_.capacity())
        points_.reserve(std::min(points_.size() + kGrowth, size_t{kSeconds}));
    points_.push_back(point);
}

void History::Series::add(int64_t second, const HistoryPoint& point) {
    if (points_.empty() || second - last_ >= kSeconds) {
        points_.clear();
        begin_ = second;
    } else {
        for (int64_t missed = last_ + 1; missed < second; ++missed)
            put(missed, {});
    }
    put(second, point);
    last_ = second;
}

HistoryPoint History::Series::at(int64_t second) const {
    if (points_.empty() || second < begin_ || second > last_ || second <= last_ - kSeconds)
        return {};
    return points_[static_cast<size_t>((second - begin_) % kSeconds)];
}

void History::add(const std::string& series, int64_t second, const HistoryPoint& point) {
    const std::lock_guard lock(mutex_);
    const auto [place, isNew] = series_.try_emplace(series);
    if (isNew || second > place->second.last())
        place->second.add(second, point);
    if (series_.size() <= kMostSeries)
        return;
    series_.erase(
        std::min_element(series_.begin(), series_.end(), [](const auto& one, const auto& other) {
            return one.second.last() < other.second.last();
        }));
}

void History::expire(int64_t now) {
    const std::lock_guard lock(mutex_);
    std::erase_if(series_, [now](const auto& one) { return one.second.last() <= now - kSeconds; });
}

History::Excerpt History::read(const std::string& series, int64_t now, size_t mostPoints) const {
    Excerpt excerpt;
    const auto most = std::clamp<int64_t>(static_cast<int64_t>(mostPoints), 1, kSeconds);
    excerpt.interval = (kSeconds + most - 1) / most;
    // Whole intervals since the clock began, so that a point keeps its value while time goes on.
    const int64_t end = now - now % excerpt.interval;
    const int64_t count = kSeconds / excerpt.interval;
    excerpt.begin = end - count * excerpt.interval;
    const std::lock_guard lock(mutex_);
    const auto found = series_.find(series);
    if (found == series_.end())
        return excerpt;
    excerpt.points.reserve(static_cast<size_t>(count));
    for (int64_t i = 0; i < count; ++i)
        excerpt.points.push_back(summary([&](int64_t second) { return found->second.at(second); },
                                         excerpt.begin + i * excerpt.interval, excerpt.interval));
    return excerpt;
}

size_t History::size() const {
    const std::lock_guard lock(mutex_);
    return series_.size();
}
