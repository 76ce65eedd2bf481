#include "TransportStream.h"

#include <bitstream/mpeg/ts.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "Parity.h"

namespace {

constexpr size_t kSyncRun = 5;
constexpr size_t kSyncRunAtLeast = 3;

// PCRs come at least every 100 ms; muxers that are lax about it stay below this. A greater step,
// and any step backwards, is a splice.
constexpr uint64_t kPcrStepLimit = kPcrHz;

constexpr uint8_t kFlagsOnly = 1;    // length of an adaptation field that has the flags
constexpr uint8_t kFlagsAndPcr = 7;  // ... and a PCR

bool isRunOfPackets(std::span<const uint8_t> data, size_t packetSize) {
    const size_t room = (data.size() + packetSize - 1) / packetSize;
    const size_t run = std::min(room, kSyncRun);
    if (run < kSyncRunAtLeast)
        return false;
    for (size_t i = 0; i < run; ++i) {
        if (data[i * packetSize] != kSyncByte)
            return false;
    }
    return true;
}

// A send channel decides for 188 by these three bytes alone. Where parity bytes happen to look like
// that, the stream has to begin with another packet.
bool looksLike188(std::span<const uint8_t> data) {
    return data.size() > 2 * kPacketBytes && data[kPacketBytes] == kSyncByte &&
           data[2 * kPacketBytes] == kSyncByte;
}

bool hasAdaptation(const uint8_t* packet, uint8_t length) {
    return ts_has_adaptation(packet) && ts_get_adaptation(packet) >= length &&
           ts_get_adaptation(packet) < kPacketBytes - TS_HEADER_SIZE;
}

// Whether the packet announces that its PID's counter and clock start anew.
bool isDiscontinuous(const uint8_t* packet) {
    return hasAdaptationFlags(packet) && tsaf_has_discontinuity(packet);
}

}  // namespace

bool hasAdaptationFlags(const uint8_t* packet) {
    return hasAdaptation(packet, kFlagsOnly);
}

std::span<const uint8_t> packetPayload(const uint8_t* packet) {
    if (!ts_has_payload(packet))
        return {};
    const size_t begin =
        TS_HEADER_SIZE + (ts_has_adaptation(packet) ? size_t{1} + ts_get_adaptation(packet) : 0);
    return std::span(packet, kPacketBytes).subspan(std::min(begin, kPacketBytes));
}

std::optional<PacketLayout> findPackets(std::span<const uint8_t> data) {
    for (size_t offset = 0; offset < data.size(); ++offset) {
        const auto rest = data.subspan(offset);
        if (rest.front() != kSyncByte)
            continue;
        if (isRunOfPackets(rest, kPacketBytes))
            return PacketLayout{kPacketBytes, offset};
        if (isRunOfPackets(rest, kPacketWithParityBytes) && !looksLike188(rest))
            return PacketLayout{kPacketWithParityBytes, offset};
    }
    return std::nullopt;
}

std::optional<size_t> findPackets(std::span<const uint8_t> data, size_t packetSize,
                                  bool moreToCome) {
    const size_t least = moreToCome ? (kSyncRun - 1) * packetSize + 1 : 1;
    for (size_t offset = 0; offset + least <= data.size(); ++offset) {
        if (data[offset] == kSyncByte && isRunOfPackets(data.subspan(offset), packetSize))
            return offset;
    }
    return std::nullopt;
}

void writeNullPacket(uint8_t* packet, size_t packetSize) {
    static const auto kNullPacket = [] {
        std::array<uint8_t, kPacketWithParityBytes> made{};
        made.fill(0xFF);
        ts_pad(made.data());
        ts::writeParity(made.data());
        return made;
    }();
    std::copy_n(kNullPacket.begin(), packetSize, packet);
}

void appendNullPackets(std::vector<uint8_t>& data, size_t packetSize, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        data.resize(data.size() + packetSize);
        writeNullPacket(data.data() + data.size() - packetSize, packetSize);
    }
}

std::optional<Pcr> readPcr(const uint8_t* packet) {
    if (!ts_validate(packet) || ts_get_transporterror(packet) ||
        !hasAdaptation(packet, kFlagsAndPcr) || !tsaf_has_pcr(packet))
        return std::nullopt;
    return Pcr{ts_get_pid(packet), tsaf_get_pcr(packet) * 300 + tsaf_get_pcrext(packet),
               isDiscontinuous(packet)};
}

void writePcr(uint8_t* packet, uint64_t ticks, bool announced) {
    tsaf_set_pcr(packet, ticks / 300);
    tsaf_set_pcrext(packet, ticks % 300);
    if (announced)
        tsaf_set_discontinuity(packet);
}

void writePcrPacket(uint8_t* packet, size_t packetSize, uint16_t pid, uint8_t counter,
                    uint64_t ticks) {
    ts_init(packet);
    ts_set_pid(packet, pid);
    ts_set_cc(packet, counter);
    ts_set_adaptation(packet, kPacketBytes - TS_HEADER_SIZE - 1);
    writePcr(packet, ticks, false);
    if (packetSize == kPacketWithParityBytes)
        ts::writeParity(packet);
}

std::optional<uint64_t> pcrStep(uint64_t before, const Pcr& next) {
    const uint64_t step = (next.ticks + kPcrModulus - before) % kPcrModulus;
    if (next.discontinuous || step > kPcrStepLimit)
        return std::nullopt;
    return step;
}

std::optional<PcrSteps::Step> PcrSteps::add(const std::optional<Pcr>& pcr) {
    const uint64_t position = packets_++;
    if (!pcr)
        return std::nullopt;
    const auto [found, isNew] = clocks_.try_emplace(pcr->pid, Clock{pcr->ticks, position});
    const Clock from = std::exchange(found->second, {pcr->ticks, position});
    return Step{pcr->pid, from.lastPosition, position - from.lastPosition,
                isNew ? std::nullopt : pcrStep(from.lastPcr, *pcr)};
}

std::optional<PcrIntervals::Interval> PcrIntervals::add(const uint8_t* packet) {
    const auto step = steps_.add(readPcr(packet));
    // A clock that stands still measures nothing.
    if (!step || step->ticks.value_or(0) == 0 || step->begin < followedTo_)
        return std::nullopt;
    const uint64_t gap = step->begin - std::exchange(followedTo_, step->begin + step->packets);
    return Interval{gap * packetSize_, step->packets * packetSize_, *step->ticks};
}

std::chrono::nanoseconds StreamTime::add(const uint8_t* packet) {
    const uint64_t bytes = intervals_.bytes();
    if (const auto interval = intervals_.add(packet)) {
        if (!std::exchange(clocked_, true))
            seconds_ = 0.0;
        // The gap is taken to flow as what follows it.
        const double share = static_cast<double>(interval->gapBytes + interval->bytes) /
                             static_cast<double>(interval->bytes);
        seconds_ += share * static_cast<double>(interval->ticks) / double{kPcrHz};
    } else if (!clocked_ && bitrate_bps_) {
        seconds_ = static_cast<double>(bytes) * 8.0 / static_cast<double>(*bitrate_bps_);
    }
    return std::chrono::nanoseconds(std::llround(seconds_ * 1e9));
}

void PcrBitrate::add(const std::optional<Pcr>& pcr) {
    const auto step = steps_.add(pcr);
    if (!step || !step->ticks)
        return;
    Clock& clock = clocks_[step->pid];
    clock.ticks += *step->ticks;
    clock.packets += step->packets;
}

const PcrBitrate::Clock* PcrBitrate::longest() const {
    const Clock* best = nullptr;
    for (const auto& [pid, clock] : clocks_) {
        if (clock.ticks > 0 && (best == nullptr || clock.ticks > best->ticks))
            best = &clock;
    }
    return best;
}

std::optional<uint64_t> PcrBitrate::bitrate() const {
    const Clock* const clock = longest();
    if (clock == nullptr)
        return std::nullopt;
    const double bits = static_cast<double>(clock->packets * packetSize_) * 8.0;
    return static_cast<uint64_t>(
        std::llround(bits * static_cast<double>(kPcrHz) / static_cast<double>(clock->ticks)));
}

double PcrBitrate::seconds() const {
    const Clock* const clock = longest();
    return clock == nullptr ? 0.0 : static_cast<double>(clock->ticks) / static_cast<double>(kPcrHz);
}

Continuity ContinuityCounter::add(const uint8_t* packet) {
    // The header of a packet that is marked as damaged cannot be trusted. In null packets the
    // counter means nothing.
    const uint16_t pid = ts_get_pid(packet);
    if (ts_get_transporterror(packet) || pid == kNullPid)
        return Continuity::kInOrder;
    uint8_t& last = last_[pid];
    if (isDiscontinuous(packet))
        last = kUnknown;
    if (!ts_has_payload(packet))
        return Continuity::kInOrder;  // the counter stands still in packets without payload
    const uint8_t counter = ts_get_cc(packet);
    auto result = Continuity::kInOrder;
    if (last != kUnknown) {
        const uint8_t before = last & 0x0F;
        if (ts_check_duplicate(counter, before) && (last & kRepeated) == 0) {
            last |= kRepeated;
            return Continuity::kDuplicate;
        }
        if (ts_check_discontinuity(counter, before)) {
            ++errors_;
            if (counter != before)  // more than the one duplicate that may come
                missing_ += (counter - before - 1u) & 0x0F;
            result = Continuity::kJump;
        }
    }
    last = counter;
    return result;
}

bool PacketSplitter::synchronise() {
    // Enough for a full run of the longer packets behind any offset within one packet.
    constexpr size_t kWindow = (kSyncRun + 1) * kPacketWithParityBytes;
    if (pending_.size() < kWindow)
        return false;
    const auto layout = findPackets(pending_);
    // Without a layout the end is kept: a run may begin there.
    const size_t skip = layout ? layout->offset : pending_.size() - kWindow + 1;
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(skip));
    packetSize_ = layout ? layout->packetSize : 0;
    return layout.has_value();
}

// Returns how many bytes were taken. At the end of a run, packetSize_ becomes 0.
size_t PacketSplitter::take(std::span<const uint8_t> bytes, const Sink& sink) {
    size_t begin = 0;
    for (; bytes.size() - begin >= packetSize_; begin += packetSize_) {
        if (bytes[begin] != kSyncByte) {
            if (bytes.size() - begin == packetSize_)
                break;  // the next byte decides
            ++syncByteErrors_;
            if (bytes[begin + packetSize_] != kSyncByte) {
                ++syncByteErrors_;
                ++syncLosses_;
                packetSize_ = 0;
                break;
            }
        }
        sink(bytes.data() + begin);
        ++packets_;
    }
    return begin;
}

void PacketSplitter::feed(std::span<const uint8_t> bytes, const Sink& sink) {
    // Datagrams of whole packets, which is most of them, are not copied.
    if (pending_.empty() && packetSize_ != 0)
        bytes = bytes.subspan(take(bytes, sink));
    pending_.insert(pending_.end(), bytes.begin(), bytes.end());
    while (!pending_.empty() && (packetSize_ != 0 || synchronise())) {
        const size_t taken = take(pending_, sink);
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(taken));
        if (packetSize_ != 0)
            return;
    }
}
