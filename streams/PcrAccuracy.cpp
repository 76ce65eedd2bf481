#include "PcrAccuracy.h"

#include <algorithm>
#include <cmath>

#include "TransportStream.h"

namespace ts {

namespace {

constexpr size_t kFewestPcrs = 8;
constexpr size_t kMostPcrs = 128;
constexpr double kWindow = double{kPcrHz};  // ticks
constexpr double kMostStray = kWindow / 1000;
constexpr double kPcrTicksPerNanosecond = double{kPcrHz} / 1e9;

double median(std::vector<double>& values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace

PcrAccuracy::PcrAccuracy(Time limit)
    : limit_(static_cast<double>(limit.count()) * kPcrTicksPerNanosecond) {}

std::optional<PcrAccuracy::Verdict> PcrAccuracy::add(uint64_t ticks, uint64_t position,
                                                     uint64_t nulls) {
    if (points_.empty()) {
        origin_ = position;
        nulls_ = nulls;
        points_.push_back({0.0, 0.0});
        return std::nullopt;
    }
    points_.push_back({static_cast<double>(position - origin_),
                       points_.back().ticks + static_cast<double>(ticks)});
    if (points_.size() < kFewestPcrs ||
        (points_.back().ticks < kWindow && points_.size() < kMostPcrs))
        return std::nullopt;
    const Verdict verdict = judge(nulls > nulls_);
    points_.clear();
    add(0, position, nulls);
    judged_ = true;
    return verdict;
}

// Medians first: a PCR that is far off must not bend the line that the others are measured by. Then
// the line of least squares through those that lie near it.
PcrAccuracy::Line PcrAccuracy::fit(Points points) const {
    const size_t half = points.size() / 2;
    std::vector<double> values;
    for (size_t i = 0; i + half < points.size(); ++i) {
        const Point &a = points[i], &b = points[i + half];
        values.push_back((b.ticks - a.ticks) / (b.position - a.position));
    }
    Line line{median(values), 0.0, 0.0};
    const auto off = [&line](const Point& point) {
        return point.ticks - line.slope * point.position - line.offset;
    };
    values.clear();
    for (const Point& point : points)
        values.push_back(off(point));
    line.offset = median(values);
    values.clear();
    for (const Point& point : points)
        values.push_back(std::abs(off(point)));
    line.stray = median(values);

    double n = 0.0, x = 0.0, y = 0.0, xx = 0.0, xy = 0.0;
    for (const Point& point : points) {
        const double error = off(point);
        if (std::abs(error) > std::max(limit_, 2.0 * line.stray))
            continue;
        n += 1.0;
        x += point.position;
        y += error;
        xx += point.position * point.position;
        xy += point.position * error;
    }
    if (const double spread = n * xx - x * x; spread > 0.0) {
        const double tilt = (n * xy - x * y) / spread;
        line.slope += tilt;
        line.offset += (y - tilt * x) / n;
    }
    return line;
}

PcrAccuracy::Verdict PcrAccuracy::compare(Points points, double slope, double offset) const {
    Verdict verdict{true};
    double worst = 0.0;
    for (const Point& point : points) {
        const double error = std::abs(point.ticks - slope * point.position - offset);
        worst = std::max(worst, error);
        const bool isNew = !judged_ || &point != points_.data();
        verdict.wrong += error > limit_ && isNew ? 1 : 0;
    }
    verdict.worst = Time(std::llround(worst / kPcrTicksPerNanosecond));
    return verdict;
}

// Whether two lines of the same slope fit what one does not.
bool PcrAccuracy::isOneStep() const {
    std::vector<double> values;
    const auto slopeAt = [this](size_t i) {
        return (points_[i].ticks - points_[i - 1].ticks) /
               (points_[i].position - points_[i - 1].position);
    };
    for (size_t i = 1; i < points_.size(); ++i)
        values.push_back(slopeAt(i));
    const double usual = median(values);
    const auto errorAt = [&](size_t i) {
        return std::abs(slopeAt(i) - usual) * (points_[i].position - points_[i - 1].position);
    };
    size_t step = 2;
    for (size_t i = 3; i + 2 <= points_.size(); ++i)
        step = errorAt(i) > errorAt(step) ? i : step;
    Points larger = Points(points_).first(step), smaller = Points(points_).subspan(step);
    if (larger.size() < smaller.size())
        std::swap(larger, smaller);
    const Line line = fit(larger);
    values.clear();
    for (const Point& point : smaller)
        values.push_back(point.ticks - line.slope * point.position);
    return compare(larger, line.slope, line.offset).wrong == 0 &&
           compare(smaller, line.slope, median(values)).wrong == 0;
}

PcrAccuracy::Verdict PcrAccuracy::judge(bool hasNulls) const {
    const Line line = fit(points_);
    const Verdict verdict = compare(points_, line.slope, line.offset);
    if (verdict.wrong == 0)
        return verdict;
    if (isOneStep())
        return {true};
    if (line.stray > limit_ && (!hasNulls || line.stray > kMostStray))
        return {false};
    return verdict;
}

}  // namespace ts
