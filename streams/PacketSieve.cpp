#include "PacketSieve.h"

#include <algorithm>
#include <utility>

namespace {

// Packets in a row that prove a size: many for a new one, fewer for that of the packets before.
constexpr int kRunOfNewSize = 5;
constexpr int kRunOfKnownSize = 3;

// RFC 3550, 5.1.
constexpr size_t kRtpHeader = 12;
constexpr size_t kLongestRtpHeader = 512;  // with an extension longer than any in use

// kEnds: as far as the data goes, and it ends with a packet.
enum class Verdict { kNo, kNeedsMore, kEnds, kYes };

// The length of the RTP header at the beginning of the data. None: it is no header. More than the
// data: more is needed.
std::optional<size_t> rtpHeader(std::span<const uint8_t> data) {
    if (data[0] >> 6 != 2)
        return std::nullopt;
    const bool extended = (data[0] & 0x10) != 0;
    size_t length = kRtpHeader + size_t{4} * (data[0] & 0x0F);
    if (extended) {
        length += 4;
        if (length <= data.size())
            length += size_t{4} * (size_t{data[length - 2]} << 8 | data[length - 1]);
    }
    return length <= kLongestRtpHeader ? std::optional(length) : std::nullopt;
}

// Whether packets of that size begin with the first byte, be it with RTP headers between them.
Verdict isRun(std::span<const uint8_t> data, size_t packetSize, int wanted) {
    for (int found = 0; found < wanted; ++found) {
        if (found > 0 && data.empty())
            return Verdict::kEnds;
        if (found > 0 && data[0] != kSyncByte) {
            const auto header = rtpHeader(data);
            if (!header)
                return Verdict::kNo;
            data = data.subspan(std::min(*header, data.size()));
        }
        if (data.empty())
            return Verdict::kNeedsMore;
        if (data[0] != kSyncByte)
            return Verdict::kNo;
        if (data.size() < packetSize)
            return Verdict::kNeedsMore;
        data = data.subspan(packetSize);
    }
    return Verdict::kYes;
}

size_t otherSize(size_t packetSize) {
    return kPacketBytes + kPacketWithParityBytes - packetSize;
}

}  // namespace

// Whether packets begin with the first byte; then packetSize_ is their size.
bool PacketSieve::synchronise(std::span<const uint8_t> data, bool ended, bool& needsMore) {
    needsMore = false;
    for (const size_t size : {kPacketBytes, kPacketWithParityBytes}) {
        const int wanted = size == packetSize_ ? kRunOfKnownSize : kRunOfNewSize;
        const Verdict verdict = isRun(data, size, wanted);
        if (verdict == Verdict::kYes || (verdict == Verdict::kEnds && ended)) {
            packetSize_ = size;
            synchronised_ = true;
            return true;
        }
        needsMore |= verdict != Verdict::kNo && !ended;
    }
    return false;
}

// How much to skip in front of what are packets, or may be when more has come.
size_t PacketSieve::find(std::span<const uint8_t> data, bool ended) {
    bool needsMore = false;
    // A header is skipped as a whole, since it may hold what looks like a packet's first byte.
    if (const auto header = data.empty() ? std::nullopt : rtpHeader(data)) {
        const auto packets = data.subspan(std::min(*header, data.size()));
        if (synchronise(packets, ended, needsMore))
            return *header;
        if (needsMore)
            return 0;
    }
    for (size_t at = 0; at < data.size(); ++at) {
        if (data[at] != kSyncByte)
            continue;
        if (synchronise(data.subspan(at), ended, needsMore) || needsMore)
            return at;
    }
    return data.size();
}

void PacketSieve::countSkipped(size_t bytes) {
    if (bytes == 0)
        return;
    skippedBytes_ += bytes;
    if (std::exchange(inGap_, true))
        return;
    ++gaps_;
    syncLosses_ += packets_ > 0 ? 1 : 0;
}

PacketSieve::Run PacketSieve::next(std::span<const uint8_t> data, bool ended) {
    Run run{0, 0};
    synchronised_ = synchronised_ && (data.empty() || data[0] == kSyncByte);
    if (!synchronised_)
        run.skip = find(data, ended);
    const auto rest = data.subspan(run.skip);
    while (synchronised_ && run.length + packetSize_ <= rest.size() &&
           rest[run.length] == kSyncByte) {
        const auto packet = rest.subspan(run.length);
        const bool isLast = packet.size() > packetSize_ && packet[packetSize_] != kSyncByte;
        const Verdict change =
            isLast ? isRun(packet, otherSize(packetSize_), kRunOfNewSize) : Verdict::kNo;
        if (change == Verdict::kYes && run.length == 0)
            packetSize_ = otherSize(packetSize_);
        else if (change == Verdict::kYes || (change != Verdict::kNo && !ended))
            break;
        continuity_.add(packet.data());
        ++packets_;
        run.length += packetSize_;
    }
    if (ended && run.length == 0)
        run.skip = data.size();
    countSkipped(run.skip);
    inGap_ = inGap_ && run.length == 0;
    return run;
}
