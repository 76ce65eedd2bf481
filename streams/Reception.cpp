#include "Reception.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "TransportStream.h"

namespace ts {

namespace {

constexpr size_t kMostSources = 16;
constexpr Time kAlternation = std::chrono::seconds(1);
constexpr Time kMinute = std::chrono::minutes(1);
constexpr unsigned kClassesPerOctave = 8;

double toMilliseconds(Time time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

}  // namespace

void ArrivalIntervals::add(Time interval, Time now) {
    if (now - begun_ >= kMinute) {
        minutes_[1] = now - begun_ < 2 * kMinute ? minutes_[0] : Minute{};
        minutes_[0] = Minute{};
        begun_ = now;
    }
    // Octaves of microseconds, each cut evenly in eight.
    const auto length = static_cast<uint64_t>(std::max<int64_t>(interval.count() / 1000, 1));
    const auto octave = static_cast<unsigned>(std::bit_width(length) - 1);
    const uint64_t place = length * kClassesPerOctave >> octave;  // 8 to 15
    const size_t index = size_t{octave} * kClassesPerOctave + place - kClassesPerOctave;
    ++minutes_[0].counts[std::min(index, kClasses - 1)];
    minutes_[0].longest = std::max(minutes_[0].longest, interval);
}

std::optional<ArrivalIntervals::Report> ArrivalIntervals::report() const {
    uint64_t total = 0;
    for (size_t i = 0; i < kClasses; ++i)
        total += uint64_t{minutes_[0].counts[i]} + minutes_[1].counts[i];
    if (total == 0)
        return std::nullopt;
    const double longest = toMilliseconds(std::max(minutes_[0].longest, minutes_[1].longest));
    const auto percentile = [&](uint64_t percent) {
        const uint64_t wanted = (total * percent + 99) / 100;
        uint64_t passed = 0;
        size_t i = 0;
        for (; i < kClasses - 1 && passed < wanted; ++i)
            passed += uint64_t{minutes_[0].counts[i]} + minutes_[1].counts[i];
        const double end = std::ldexp(1.0 + static_cast<double>(i % kClassesPerOctave) / 8.0,
                                      static_cast<int>(i / kClassesPerOctave));
        return std::min(end / 1e3, longest);
    };
    return Report{percentile(50), percentile(99), longest};
}

Reception::Source& Reception::find(const Datagram& datagram) {
    if (current_ < sources_.size() && sources_[current_].report.source == datagram.source)
        return sources_[current_];
    const auto found = std::find_if(sources_.begin(), sources_.end(), [&](const Source& source) {
        return source.report.source == datagram.source;
    });
    current_ = static_cast<size_t>(found - sources_.begin());
    if (found != sources_.end()) {
        counts_.alternations += datagram.arrival - found->report.last < kAlternation ? 1 : 0;
        return *found;
    }
    if (sources_.size() == kMostSources) {
        const auto oldest = std::min_element(
            sources_.begin(), sources_.end(),
            [](const Source& a, const Source& b) { return a.report.last < b.report.last; });
        // So many senders in so short a time take turns, even if none of them is remembered.
        counts_.alternations += datagram.arrival - oldest->report.last < kAlternation ? 1 : 0;
        current_ = static_cast<size_t>(oldest - sources_.begin());
        *oldest = Source{};
    } else {
        sources_.emplace_back();
    }
    sources_[current_].report = {datagram.source, 0, datagram.arrival, datagram.arrival};
    return sources_[current_];
}

void Reception::noteSize(size_t carried) {
    if (carried == 0 || (carried % kPacketBytes != 0 && carried % kPacketWithParityBytes != 0))
        ++counts_.oddDatagrams;
}

std::span<const uint8_t> Reception::add(const Datagram& datagram) {
    ++counts_.datagrams;
    counts_.bytes += datagram.payload.size();
    smallest_ = std::min(smallest_, datagram.payload.size());
    largest_ = std::max(largest_, datagram.payload.size());
    if (datagram.dscp)
        dscps_.set(*datagram.dscp % dscps_.size());
    if (datagram.ttl) {
        smallestTtl_ = std::min(smallestTtl_.value_or(*datagram.ttl), *datagram.ttl);
        largestTtl_ = std::max(largestTtl_.value_or(*datagram.ttl), *datagram.ttl);
    }
    if (last_)
        intervals_.add(datagram.arrival - *last_, datagram.arrival);
    last_ = datagram.arrival;
    Source& source = find(datagram);
    ++source.report.datagrams;
    source.report.last = datagram.arrival;

    const auto rtp = readRtp(datagram.payload);
    const auto carried = rtp ? rtp->payload : datagram.payload;
    noteSize(carried.size());
    if (!rtp)
        return carried;
    ++counts_.rtpDatagrams;
    payloadType_ = rtp->payloadType;
    const auto place = source.rtp.add(*rtp, datagram.arrival, counts_.rtp);
    return place == RtpSequence::Place::kDuplicate ? std::span<const uint8_t>{} : carried;
}

void Reception::tick(Time now) {
    for (Source& source : sources_)
        source.rtp.settle(now, counts_.rtp);
}

ReceptionReport Reception::report() const {
    ReceptionReport report;
    report.counts = counts_;
    report.smallest = counts_.datagrams == 0 ? 0 : smallest_;
    report.largest = largest_;
    for (const Source& source : sources_)
        report.sources.push_back(source.report);
    if (counts_.rtpDatagrams > 0) {
        const RtpSequence& rtp = sources_[current_].rtp;
        report.rtp =
            RtpReport{counts_.rtp, rtp.ssrc(), payloadType_, rtp.jitter_ms(), rtp.timestampRate()};
    }
    report.intervals = intervals_.report();
    for (size_t i = 0; i < dscps_.size(); ++i) {
        if (dscps_[i])
            report.dscps.push_back(static_cast<uint8_t>(i));
    }
    report.smallestTtl = smallestTtl_;
    report.largestTtl = largestTtl_;
    return report;
}

}  // namespace ts
