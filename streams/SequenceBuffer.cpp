#include "SequenceBuffer.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace ts {

namespace {

// Most payloads of a stream fit into any storage that one of them had.
constexpr size_t kUsualBytes = 1536;

}  // namespace

std::optional<PayloadPool::Payload> PayloadPool::copy(std::span<const uint8_t> bytes) {
    Payload payload;
    if (!free_.empty() && bytes.size() <= kUsualBytes) {
        payload = std::move(free_.back());
        free_.pop_back();
    } else {
        const size_t needed = std::max(bytes.size(), kUsualBytes);
        while (bytes_ + needed > mostBytes_ && !free_.empty()) {
            bytes_ -= free_.back().capacity();
            free_.pop_back();
        }
        if (bytes_ + needed > mostBytes_)
            return std::nullopt;
        payload.reserve(needed);
        bytes_ += payload.capacity();
    }
    payload.assign(bytes.begin(), bytes.end());
    return payload;
}

void PayloadPool::giveBack(Payload& payload) {
    if (payload.capacity() == kUsualBytes)
        free_.push_back(std::move(payload));
    else
        bytes_ -= payload.capacity();
    payload = Payload();
}

// By the multiplier of FNV-1a, in four lanes, since each step of a lane waits for the one before
// it. The digest is a guard against accidents, not against an opponent.
uint64_t digestOf(std::span<const uint8_t> bytes) {
    std::array<uint64_t, 4> lanes{bytes.size(), 1, 2, 3};
    const auto mix = [](uint64_t& lane, uint64_t word) {
        lane = (lane ^ word) * 1099511628211U;
        lane ^= lane >> 32;
    };
    for (; bytes.size() >= sizeof lanes; bytes = bytes.subspan(sizeof lanes)) {
        std::array<uint64_t, 4> words{};
        std::memcpy(words.data(), bytes.data(), sizeof words);
        for (size_t i = 0; i < lanes.size(); ++i)
            mix(lanes[i], words[i]);
    }
    std::array<uint64_t, 4> rest{};
    if (!bytes.empty())
        std::memcpy(rest.data(), bytes.data(), bytes.size());
    for (size_t i = 0; i < lanes.size(); ++i)
        mix(lanes[i], rest[i]);
    for (size_t i = 1; i < lanes.size(); ++i)
        mix(lanes[0], lanes[i]);
    return lanes[0];
}

int64_t SequenceBuffer::begin(const RtpDatagram& datagram) {
    clear();
    begun_ = true;
    ssrc_ = datagram.ssrc;
    // Further on than anything that a slot or a number nearby may hold.
    highest_ = ((highest_ >> 16) + 4) * 65536 + datagram.sequence;
    return highest_;
}

void SequenceBuffer::clear() {
    while (held_ > 0)
        letGo(at(arrivals_[oldest_]));
    begun_ = false;
}

SequenceBuffer::Slot& SequenceBuffer::note(int64_t number, const RtpDatagram& datagram,
                                           Time arrival, size_t path) {
    Slot& slot = at(number);
    slot.number = number;
    slot.arrival = arrival;
    slot.timestamp = datagram.timestamp;
    slot.digest = digestOf(datagram.payload);
    slot.order = ++order_;
    slot.sources = static_cast<uint8_t>(1U << path);
    slot.first = static_cast<uint8_t>(path);
    highest_ = std::max(highest_, number);
    return slot;
}

bool SequenceBuffer::hold(int64_t number, const RtpDatagram& datagram, Time arrival, size_t path) {
    if (at(number).held || listed_ == arrivals_.size())
        return false;
    auto payload = pool_->copy(datagram.payload);
    if (!payload)
        return false;
    Slot& slot = note(number, datagram, arrival, path);
    slot.held = true;
    slot.payload = std::move(*payload);
    arrivals_[(oldest_ + listed_++) & (arrivals_.size() - 1)] = number;
    ++held_;
    return true;
}

void SequenceBuffer::letGo(Slot& slot) {
    slot.held = false;
    pool_->giveBack(slot.payload);
    --held_;
    while (listed_ > 0) {
        const Slot* const oldest = find(arrivals_[oldest_]);
        if (oldest != nullptr && oldest->held)
            break;
        oldest_ = (oldest_ + 1) & (arrivals_.size() - 1);
        --listed_;
    }
}

void SequenceBuffer::forget(Slot& slot) {
    letGo(slot);
    slot.number = -1;
}

SequenceBuffer::Slot& SequenceBuffer::lowest(int64_t from) {
    while (true) {
        Slot& slot = at(from);
        if (slot.number == from && slot.held)
            return slot;
        ++from;
    }
}

}  // namespace ts
