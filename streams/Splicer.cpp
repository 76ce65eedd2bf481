#include "Splicer.h"

#include <bitstream/mpeg/ts.h>

#include <algorithm>

#include "Parity.h"

namespace ts {

namespace {

// They come ten times a second at least; what has none by then has no clock in this stream.
constexpr uint64_t kPcrsAreDue = kPcrHz;

}  // namespace

void Splicer::cut() {
    before_ |= come_;
    come_.reset();
    clocked_.reset();
    firstClock_.reset();
}

void Splicer::noteClock(const Pcr& pcr) {
    clocks_.set(pcr.pid);
    clocked_.set(pcr.pid);
    if (!firstClock_)
        firstClock_ = pcr;
    const uint64_t passed = (pcr.ticks + kPcrModulus - firstClock_->ticks) % kPcrModulus;
    if (pcr.pid == firstClock_->pid && passed > kPcrsAreDue)
        clocks_ &= clocked_;
}

// Whether the packet is to announce something; `needsPacket`: another one has to do so for it.
bool Splicer::isAnnounced(const uint8_t* packet, bool& needsPacket) {
    const uint16_t pid = ts_get_pid(packet);
    // Nothing of a packet that is marked as damaged can be trusted.
    if (pid == kNullPid || ts_get_transporterror(packet))
        return false;
    const bool isFirst = !come_[pid];
    const bool awaitsClock = clocks_[pid] && !clocked_[pid];
    come_.set(pid);
    if (const auto pcr = readPcr(packet))
        noteClock(*pcr);
    needsPacket = isFirst && !hasAdaptationFlags(packet);
    return before_[pid] && (isFirst || (awaitsClock && hasAdaptationFlags(packet)));
}

void Splicer::append(const uint8_t* packet, size_t packetSize, bool needsPacket) {
    const size_t at = joined_.size();
    joined_.insert(joined_.end(), packet, packet + packetSize);
    uint8_t* const added = joined_.data() + at;
    if (needsPacket) {
        // The counter stands still in a packet without payload.
        const auto counter = static_cast<uint8_t>((ts_get_cc(packet) + 15) & 0x0F);
        const uint16_t pid = ts_get_pid(packet);
        std::fill_n(added, packetSize, uint8_t{0xFF});
        ts_init(added);
        ts_set_pid(added, pid);
        ts_set_cc(added, counter);
        ts_set_adaptation(added, kPacketBytes - TS_HEADER_SIZE - 1);
    }
    tsaf_set_discontinuity(added);
    if (packetSize == kPacketWithParityBytes)
        writeParity(added);
    if (needsPacket)
        joined_.insert(joined_.end(), packet, packet + packetSize);
}

std::span<const uint8_t> Splicer::join(std::span<const uint8_t> packets, size_t packetSize) {
    size_t copied = 0;  // of the packets, into what is joined; nothing before the first change
    joined_.clear();
    for (size_t at = 0; at + packetSize <= packets.size(); at += packetSize) {
        bool needsPacket = false;
        if (!isAnnounced(packets.data() + at, needsPacket))
            continue;
        const auto unchanged = packets.subspan(copied, at - copied);
        joined_.insert(joined_.end(), unchanged.begin(), unchanged.end());
        append(packets.data() + at, packetSize, needsPacket);
        copied = at + packetSize;
    }
    if (copied == 0)
        return packets;
    joined_.insert(joined_.end(), packets.begin() + static_cast<std::ptrdiff_t>(copied),
                   packets.end());
    return joined_;
}

}  // namespace ts
