#include "FecDecoder.h"

#include <algorithm>

namespace ts {

namespace {

using namespace std::chrono_literals;

constexpr size_t kRtpHeader = 12;
constexpr size_t kFecHeader = 16;
constexpr size_t kLargestDatagram = 2048;
constexpr int64_t kMostCovered = 64;
constexpr Time kPeriod = 10s;
// How long a datagram may come behind its parity, in numbers of the stream.
constexpr int64_t kReordering = 32;

uint16_t read16(std::span<const uint8_t> bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

void write16(uint8_t* to, size_t value) {
    to[0] = static_cast<uint8_t>(value >> 8);
    to[1] = static_cast<uint8_t>(value);
}

int64_t numberNear(uint16_t sequence, int64_t near) {
    return near + static_cast<int16_t>(sequence - static_cast<uint16_t>(near));
}

void xorInto(std::vector<uint8_t>& to, size_t at, std::span<const uint8_t> bytes) {
    const size_t count = std::min(bytes.size(), to.size() - at);
    for (size_t i = 0; i < count; ++i)
        to[at + i] ^= bytes[i];
}

}  // namespace

// Whether it is a datagram of the stream that is followed, which may begin anew with it: also with
// numbers that were there a moment ago.
bool FecDecoder::follow(const RtpDatagram& media, std::span<const uint8_t> datagram) {
    const int64_t number = numberNear(media.sequence, highest_);
    const auto isCopy = [&] { return std::ranges::equal(slotOf(number).datagram, datagram); };
    if (begun_ && media.ssrc == ssrc_ && std::abs(number - highest_) < kRemembered &&
        (!has(number) || isCopy())) {
        elsewhere_.reset();
        return true;
    }
    const bool follows = elsewhere_ == media.sequence && elsewhereSsrc_ == media.ssrc;
    elsewhere_ = static_cast<uint16_t>(media.sequence + 1);
    elsewhereSsrc_ = media.ssrc;
    if (begun_ && !follows)
        return false;
    begun_ = true;
    ssrc_ = media.ssrc;
    // Further on than what any slot may hold.
    highest_ = ((highest_ >> 16) + 2) * 65536 + media.sequence;
    first_ = settled_ = highest_;
    while (!pending_.empty())
        dropPending(0);
    return true;
}

void FecDecoder::pushMedia(std::span<const uint8_t> datagram, Time arrival, const Sink& sink) {
    const auto media = readRtp(datagram);
    if (!media || datagram.size() > kLargestDatagram || !follow(*media, datagram))
        return;
    const int64_t number = numberNear(media->sequence, highest_);
    if (has(number))
        return;
    store(number, datagram, arrival);
    repair(arrival, sink);
}

void FecDecoder::store(int64_t number, std::span<const uint8_t> datagram, Time arrival) {
    Slot& slot = slots_[static_cast<size_t>(number % kRemembered)];
    // The place may be that of a number that is further on, where this one comes very late.
    if (slot.number > number)
        return;
    highest_ = std::max(highest_, number);
    // What is missing is counted when nothing can restore it any more, and before it is forgotten.
    const int64_t reach =
        std::min(std::max(ages_[0].numbers, ages_[1].numbers) + kReordering, kRemembered - 1);
    for (; settled_ < highest_ - reach; ++settled_)
        counts_.unrepaired += !has(settled_) && columns_ + rows_ > 0 ? 1 : 0;
    slot.number = number;
    slot.arrival = arrival;
    slot.datagram.assign(datagram.begin(), datagram.end());
    for (Parity& parity : pending_)
        parity.missing -= parity.covers(number) ? 1 : 0;
}

void FecDecoder::pushFec(std::span<const uint8_t> datagram, Time arrival, const Sink& sink) {
    // Most of the header is parity, as well, and so may be anything.
    if (!begun_ || datagram.size() < kRtpHeader + kFecHeader ||
        datagram.size() > kLargestDatagram || datagram[0] >> 6 != 2) {
        ++counts_.strange;
        return;
    }
    const auto header = datagram.subspan(kRtpHeader);
    Parity parity;
    parity.base = numberNear(read16(header, 0), highest_);
    const bool isRow = (header[12] & 0x40) != 0;
    const bool isXor = (header[12] & 0x38) == 0;
    parity.offset = header[13];
    parity.count = header[14];
    const int64_t last = parity.base + (parity.count - 1) * parity.offset;
    if (!isXor || parity.offset == 0 || parity.count == 0 || parity.count > kMostCovered ||
        last - parity.base >= kRemembered || parity.base <= highest_ - kRemembered ||
        last >= highest_ + kRemembered) {
        ++counts_.strange;
        return;
    }
    ++counts_.received;
    columns_ = static_cast<unsigned>(isRow ? parity.count : parity.offset);
    rows_ = isRow ? rows_ : static_cast<unsigned>(parity.count);
    noteWait(parity, arrival);
    for (int64_t i = 0; i < parity.count; ++i)
        parity.missing += has(parity.base + i * parity.offset) ? 0 : 1;
    const bool known = std::any_of(pending_.begin(), pending_.end(), [&](const Parity& other) {
        return other.base == parity.base && other.offset == parity.offset &&
               other.count == parity.count;
    });
    if (parity.missing == 0 || known)
        return;
    if (pending_.size() == kMostPending)
        dropPending(0);
    if (!spare_.empty()) {
        parity.datagram = std::move(spare_.back().datagram);
        spare_.pop_back();
    }
    parity.datagram.assign(datagram.begin(), datagram.end());
    pending_.push_back(std::move(parity));
    repair(arrival, sink);
}

void FecDecoder::noteWait(const Parity& parity, Time arrival) {
    if (arrival - period_ >= kPeriod) {
        ages_[1] = arrival - period_ < 2 * kPeriod ? ages_[0] : Age{};
        ages_[0] = Age{};
        period_ = arrival;
    }
    for (int64_t i = 0; i < parity.count; ++i) {
        const Slot& oldest = slotOf(parity.base + i * parity.offset);
        if (oldest.number != parity.base + i * parity.offset)
            continue;
        ages_[0].time = std::max(ages_[0].time, arrival - oldest.arrival);
        ages_[0].numbers = std::max(ages_[0].numbers, highest_ - oldest.number);
        return;
    }
}

Time FecDecoder::wait(Time now) const {
    if (now - period_ >= 2 * kPeriod)
        return Time(0);
    // A quarter more: parity may be late, and a row may have to wait for the last of the columns.
    const Time age =
        now - period_ < kPeriod ? std::max(ages_[0].time, ages_[1].time) : ages_[0].time;
    return age + age / 4;
}

// Each repair may make another one possible.
void FecDecoder::repair(Time arrival, const Sink& sink) {
    for (size_t i = 0; i < pending_.size();) {
        const Parity& parity = pending_[i];
        if (parity.missing == 0 || parity.base <= highest_ - kRemembered) {
            dropPending(i);
            continue;
        }
        const auto number = repairable(parity);
        if (!number) {
            ++i;
            continue;
        }
        const bool restored = restore(parity, *number);
        dropPending(i);
        if (!restored) {
            ++counts_.strange;
            continue;
        }
        ++counts_.repaired;
        store(*number, restored_, arrival);
        sink(restored_);
        i = 0;
    }
}

std::optional<int64_t> FecDecoder::repairable(const Parity& parity) const {
    if (parity.missing != 1)
        return std::nullopt;
    int64_t number = parity.base;
    while (has(number))
        number += parity.offset;
    // As long as nothing came that was sent after it, it may just be on its way. And what was sent
    // before the first that came is nobody's loss.
    if (number >= highest_ || number < first_)
        return std::nullopt;
    return number;
}

// False: the parity is not that of these datagrams.
bool FecDecoder::restore(const Parity& parity, int64_t number) {
    const std::span<const uint8_t> fec(parity.datagram);
    // The parity is that of the stream's header, but for its number and sender, of the length that
    // follows the header, and of what follows it.
    uint8_t flags = fec[0] & 0x3F;
    uint8_t type = static_cast<uint8_t>((fec[1] & 0x80) | (fec[16] & 0x7F));
    size_t length = read16(fec, 14);
    std::array<uint8_t, 4> stamp{fec[20], fec[21], fec[22], fec[23]};
    restored_.assign(kRtpHeader, 0);
    restored_.insert(restored_.end(), fec.begin() + kRtpHeader + kFecHeader, fec.end());
    for (int64_t i = 0; i < parity.count; ++i) {
        const int64_t other = parity.base + i * parity.offset;
        if (other == number)
            continue;
        const std::span<const uint8_t> media(slotOf(other).datagram);
        flags ^= static_cast<uint8_t>(media[0] & 0x3F);
        type ^= media[1];
        length ^= media.size() - kRtpHeader;
        for (size_t j = 0; j < stamp.size(); ++j)
            stamp[j] ^= media[4 + j];
        xorInto(restored_, kRtpHeader, media.subspan(kRtpHeader));
    }
    if (length > restored_.size() - kRtpHeader)
        return false;
    restored_.resize(kRtpHeader + length);
    restored_[0] = static_cast<uint8_t>(0x80 | flags);
    restored_[1] = type;
    write16(&restored_[2], static_cast<size_t>(number));
    std::copy(stamp.begin(), stamp.end(), restored_.begin() + 4);
    write16(&restored_[8], ssrc_ >> 16);
    write16(&restored_[10], ssrc_);
    return readRtp(restored_).has_value();
}

void FecDecoder::dropPending(size_t index) {
    if (spare_.size() < kMostPending)
        spare_.push_back(std::move(pending_[index]));
    pending_.erase(pending_.begin() + static_cast<std::ptrdiff_t>(index));
}

}  // namespace ts
