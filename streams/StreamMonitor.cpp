#include "StreamMonitor.h"

#include <cmath>
#include <utility>

namespace ts {

namespace {

constexpr Time kLook = std::chrono::milliseconds(100);

int64_t wholeMilliseconds(Time time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

}  // namespace

StreamMonitor::StreamMonitor(const MonitorLimits& limits)
    : limits_(limits),
      alarms_(limits.alarms),
      analyzer_(this),
      transport_(limits.transport, analyzer_, alarms_) {}

void StreamMonitor::onPacket(const PacketFacts& packet) {
    nulls_ += packet.pid == kNullPid ? 1 : 0;
    if (packet.pcr)
        delivery_.clock(*packet.pcr, packet.position, packet.arrival);
    transport_.onPacket(packet);
}

void StreamMonitor::add(const Datagram& datagram) {
    if (!looked_ || datagram.arrival - *looked_ >= kLook)
        lookAround(datagram.arrival);
    arrival_ = datagram.arrival;
    if (!std::exchange(signal_, true)) {
        analyzer_.restart();
        delivery_.restart();
    }
    const uint64_t breaks = reception_.counts().rtp.breaks;
    const auto carried = reception_.add(datagram);
    if (reception_.counts().rtp.breaks != breaks)
        transport_.cut();
    second_.bytes += carried.size();
    const uint64_t begin = analyzer_.packetBytes();
    const uint64_t wrong = analyzer_.splitter().syncByteErrors();
    analyzer_.feed(carried, datagram.arrival);
    if (analyzer_.splitter().syncByteErrors() != wrong)
        transport_.checkSync(datagram.arrival);
    delivery_.datagram(begin, analyzer_.packetBytes(), datagram.arrival);
}

void StreamMonitor::tick(Time now) {
    if (!looked_ || now - *looked_ >= kLook)
        lookAround(now);
}

void StreamMonitor::lookAround(Time now) {
    if (!looked_)
        arrival_ = second_.begun = now;
    lookForSignal(now);
    looked_ = now;
    reception_.tick(now);
    compareCounts(now);
    // In a pause, nothing of the stream is missing: either it ends the signal, or what comes next
    // tells.
    if (signal_ && now - arrival_ < 2 * kLook)
        transport_.tick(now);
    if (delivery_.tick(now))
        endSecond(now);
    alarms_.tick(now);
}

void StreamMonitor::lookForSignal(Time now) {
    const Time silence = now - arrival_;
    if (!signal_ && looked_)
        withoutSignal_ += now - *looked_;
    if (silence <= limits_.noSignal)
        return;
    const bool told = alarms_.isFailing(Check::kNoSignal) && !signal_;
    if (std::exchange(signal_, false)) {
        withoutSignal_ += silence;
        transport_.pause();
    }
    if (told)
        alarms_.last(Check::kNoSignal, now);
    else
        alarms_.fail(Check::kNoSignal, now, {"nothing for # ms", {wholeMilliseconds(silence)}});
}

void StreamMonitor::compareCounts(Time now) {
    const ReceptionCounts& counts = reception_.counts();
    const auto compare = [&](Check check, uint64_t before, uint64_t after, const char* text) {
        if (after > before) {
            const uint64_t more = after - before;
            alarms_.fail(check, now, {text, {static_cast<int64_t>(more)}}, more);
        }
    };
    compare(Check::kRtpLoss, seen_.rtp.everLost, counts.rtp.everLost, "# datagram~ lost");
    compare(Check::kSecondSender, seen_.alternations, counts.alternations,
            "senders took turns # time~");
    compare(Check::kDatagramSize, seen_.oddDatagrams, counts.oddDatagrams,
            "# datagram~ not made of whole packets");
    compare(Check::kSocketDrops, seen_.socketDrops, counts.socketDrops, "# datagram~ dropped");
    // RTP tells the network's loss from that of the stream itself.
    const uint64_t missing = analyzer_.missingPackets();
    const uint64_t lost = counts.rtp.everLost - seen_.rtp.everLost;
    if (lost > 0)
        delivery_.lost(lost * packetsPerDatagram());
    else if (counts.rtpDatagrams == seen_.rtpDatagrams)
        delivery_.lost(missing - seenMissing_);
    seenMissing_ = missing;
    seen_ = counts;
}

uint64_t StreamMonitor::packetsPerDatagram() const {
    const ReceptionCounts& counts = reception_.counts();
    const uint64_t datagrams = std::max<uint64_t>(counts.datagrams - counts.rtp.duplicates, 1);
    return (analyzer_.splitter().packets() + datagrams / 2) / datagrams;
}

void StreamMonitor::endSecond(Time now) {
    const MediaDeliveryReport& delivery = delivery_.report();
    const uint64_t datagrams = reception_.counts().datagrams - second_.datagrams;
    // The time between two datagrams is in every delay factor, and long where the rate is low.
    if (delivery.delayFactor_ms && datagrams > 0 &&
        *delivery.delayFactor_ms * 1e6 >
            static_cast<double>(limits_.delayFactor.count()) + 1e9 / static_cast<double>(datagrams))
        alarms_.fail(Check::kDelayFactor, now, {"# ms", {std::llround(*delivery.delayFactor_ms)}});
    if (delivery.lossRate > limits_.lossRate)
        alarms_.fail(Check::kMediaLoss, now,
                     {"# packet~ in a second", {std::llround(delivery.lossRate)}});
    const uint64_t packets = analyzer_.splitter().packets() - second_.packets;
    const double seconds = std::chrono::duration<double>(now - second_.begun).count();
    bitrate_bps_.reset();
    nullShare_.reset();
    if (seconds > 0.0)
        bitrate_bps_ =
            static_cast<uint64_t>(std::llround(static_cast<double>(second_.bytes) * 8.0 / seconds));
    if (packets > 0)
        nullShare_ = static_cast<double>(nulls_ - second_.nulls) / static_cast<double>(packets);
    second_ = {now, 0, analyzer_.splitter().packets(), nulls_, reception_.counts().datagrams};
}

MonitorReport StreamMonitor::report() const {
    MonitorReport report;
    report.stream = analyzer_.report();
    report.reception = reception_.report();
    report.delivery = delivery_.report();
    for (size_t i = 0; i < kChecks; ++i)
        report.checks[i] = alarms_.state(static_cast<Check>(i));
    report.signal = signal_;
    report.withoutSignal = withoutSignal_;
    report.bitrate_bps = bitrate_bps_;
    report.nullShare = nullShare_;
    report.pcrs = transport_.pcrs();
    return report;
}

}  // namespace ts
