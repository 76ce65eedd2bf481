#include "RtpSequence.h"

#include <bitstream/ietf/rtp.h>

#include <algorithm>
#include <cmath>

#include "TransportStream.h"

namespace ts {

namespace {

constexpr uint8_t kTransportStream = 33;  // RFC 3551
// A number that is further ahead belongs to a sequence that began anew (RFC 3550, A.1).
constexpr int64_t kMostMissing = 3000;
constexpr Time kPatience = std::chrono::milliseconds(100);
constexpr double kRtpTicksPerNanosecond = 90e3 / 1e9;
constexpr int32_t kTimestampJump = 10 * 90'000;
constexpr double kTimestampSlack = 45'000;  // half a second, between clocks and in buffers

}  // namespace

std::optional<RtpDatagram> readRtp(std::span<const uint8_t> datagram) {
    const uint8_t* const data = datagram.data();
    if (datagram.size() < RTP_HEADER_SIZE || !rtp_check_hdr(data))
        return std::nullopt;
    size_t header = RTP_HEADER_SIZE + size_t{4} * rtp_get_cc(data);
    if (rtp_check_extension(data)) {
        if (datagram.size() < header + RTP_EXTENSION_SIZE)
            return std::nullopt;
        header += RTP_EXTENSION_SIZE + size_t{4} * rtpx_get_length(data + header);
    }
    const size_t padding = rtp_check_padding(data) ? datagram.back() : 0;
    if (datagram.size() < header + padding)
        return std::nullopt;
    const auto payload = datagram.subspan(header, datagram.size() - header - padding);
    const uint8_t type = rtp_get_type(data);
    // Dynamic types are in use, too. Pieces of a raw stream hardly look like both.
    if (type != kTransportStream && (payload.size() < kPacketBytes || payload[0] != kSyncByte))
        return std::nullopt;
    return RtpDatagram{type, rtp_get_seqnum(data), rtp_get_timestamp(data), rtp_get_int_ssrc(data),
                       payload};
}

bool timestampsGoOn(uint32_t from, uint32_t to, Time passed) {
    const double step = static_cast<int32_t>(to - from);
    const double expected = static_cast<double>(passed.count()) * kRtpTicksPerNanosecond;
    return step > 0 && std::abs(expected - step) < kTimestampSlack;
}

void RtpSequence::begin(const RtpDatagram& datagram, Time arrival) {
    begun_ = true;
    ssrc_ = datagram.ssrc;
    first_ = highest_ = settled_ = mark_ = datagram.sequence;
    marked_ = arrival;
    elsewhere_.reset();
    received_.set();
    timestamp_ = datagram.timestamp;
    arrival_ = firstArrival_ = arrival;
    ticks_ = 0;
    jitter_ = 0.0;
}

void RtpSequence::settleTo(int64_t number, RtpCounts& counts) {
    while (settled_ < number)
        countLost(received_[static_cast<size_t>(++settled_ % kWindow)] ? 0 : 1, counts);
}

void RtpSequence::countLost(uint64_t datagrams, RtpCounts& counts) {
    counts.lost += datagrams;
    counts.everLost += datagrams;
}

void RtpSequence::settle(Time now, RtpCounts& counts) {
    if (!begun_ || now - marked_ < kPatience)
        return;
    settleTo(mark_, counts);
    mark_ = highest_;
    marked_ = now;
}

void RtpSequence::measure(const RtpDatagram& datagram, Time arrival) {
    const auto step = static_cast<int32_t>(datagram.timestamp - timestamp_);
    const Time passed = arrival - arrival_;
    timestamp_ = datagram.timestamp;
    arrival_ = arrival;
    if (std::abs(int64_t{step}) > kTimestampJump) {
        ticks_ = 0;
        firstArrival_ = arrival;
        return;
    }
    ticks_ += step;
    const double off = static_cast<double>(passed.count()) * kRtpTicksPerNanosecond - step;
    jitter_ += (std::abs(off) - jitter_) / 16.0;
}

RtpSequence::Place RtpSequence::add(const RtpDatagram& datagram, Time arrival, RtpCounts& counts) {
    ++counts.received;
    if (!begun_ || datagram.ssrc != ssrc_) {
        if (begun_) {
            ++counts.ssrcChanges;
            settleTo(highest_, counts);
        }
        begin(datagram, arrival);
        return Place::kNext;
    }
    settle(arrival, counts);
    const int64_t step = static_cast<int16_t>(datagram.sequence - static_cast<uint16_t>(highest_));
    const int64_t number = highest_ + step;
    if (step > kMostMissing || step <= -kWindow) {
        ++counts.breaks;
        // A single one may be astray; a second that follows it is a new beginning.
        const bool follows = elsewhere_ == datagram.sequence;
        elsewhere_ = static_cast<uint16_t>(datagram.sequence + 1);
        if (follows) {
            settleTo(highest_, counts);
            // By how much the numbers went on, where the timestamps went on with the time; but for
            // this datagram and the one in front.
            if (timestampsGoOn(timestamp_, datagram.timestamp, arrival - arrival_))
                countLost(static_cast<uint16_t>(datagram.sequence - highest_) - uint64_t{2},
                          counts);
            else
                ++counts.restarts;
            begin(datagram, arrival);
        }
        return Place::kNext;
    }
    if (step > 0) {
        counts.breaks += step > 1 ? 1 : 0;
        while (highest_ < number) {
            ++highest_;
            settleTo(highest_ - kWindow, counts);
            received_[static_cast<size_t>(highest_ % kWindow)] = highest_ == number;
        }
        measure(datagram, arrival);
        return Place::kNext;
    }
    const bool early = number < first_;  // sent before the first that came
    if (!early && received_[static_cast<size_t>(number % kWindow)]) {
        ++counts.duplicates;
        return Place::kDuplicate;
    }
    ++counts.breaks;
    ++counts.reordered;
    counts.furthest = std::max(counts.furthest, static_cast<uint64_t>(-step));
    if (!early) {
        received_[static_cast<size_t>(number % kWindow)] = true;
        counts.lost -= number <= settled_ ? 1 : 0;
    }
    return Place::kLate;
}

std::optional<double> RtpSequence::timestampRate() const {
    const Time passed = arrival_ - firstArrival_;
    if (passed < std::chrono::seconds(1))
        return std::nullopt;
    return static_cast<double>(ticks_) / std::chrono::duration<double>(passed).count();
}

}  // namespace ts
