// The datagrams of an RTP sequence by number: those that wait, and what is remembered of others.
#ifndef STREAMS_SEQUENCEBUFFER_H
#define STREAMS_SEQUENCEBUFFER_H

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "RtpSequence.h"

namespace ts {

// Storage for payloads, used again and again. All of it together stays below a bound.
class PayloadPool {
  public:
    using Payload = std::vector<uint8_t>;

    explicit PayloadPool(size_t mostBytes) : mostBytes_(mostBytes) {}

    // None: there is no room.
    std::optional<Payload> copy(std::span<const uint8_t> bytes);
    void giveBack(Payload& payload);
    size_t bytes() const { return bytes_; }

  private:
    const size_t mostBytes_;
    size_t bytes_ = 0;  // of all payloads, in here and outside
    std::vector<Payload> free_;
};

uint64_t digestOf(std::span<const uint8_t> bytes);

// The numbers are those of RTP, but do not wrap; those of different beginnings never meet.
class SequenceBuffer {
  public:
    struct Slot {
        int64_t number = -1;
        Time arrival{};  // of the first copy
        uint32_t timestamp = 0;
        uint64_t digest = 0;  // of the payload
        uint32_t order = 0;   // among the arrivals
        uint8_t sources = 0;  // the paths that brought it, a bit each
        uint8_t first = 0;    // the path that brought it first
        bool held = false;
        PayloadPool::Payload payload;
    };

    // The size is a power of two. One half is for what waits, the other for what is over.
    SequenceBuffer(size_t size, PayloadPool& pool) : pool_(&pool), slots_(size), arrivals_(size) {}

    // Forgets everything. Returns the number of the datagram, which is not put in.
    int64_t begin(const RtpDatagram& datagram);
    void clear();
    bool begun() const { return begun_; }

    uint32_t ssrc() const { return ssrc_; }
    int64_t reach() const { return static_cast<int64_t>(slots_.size() / 2); }
    static int64_t numberOf(uint16_t sequence, int64_t near) {
        return near + static_cast<int16_t>(sequence - static_cast<uint16_t>(near));
    }

    // Of a datagram that has come. None: it has not come, or that is too long ago.
    Slot* find(int64_t number) {
        Slot& slot = at(number);
        return slot.number == number ? &slot : nullptr;
    }
    // Remembers that the datagram came.
    Slot& note(int64_t number, const RtpDatagram& datagram, Time arrival, size_t path);
    // As well; it waits, and is not there yet. False: there is no room.
    bool hold(int64_t number, const RtpDatagram& datagram, Time arrival, size_t path);
    // It waits no longer.
    void letGo(Slot& slot);
    // Nor has it ever come.
    void forget(Slot& slot);

    size_t held() const { return held_; }
    int64_t highest() const { return highest_; }  // that came
    uint32_t order() const { return order_; }     // the arrivals so far
    // Of what waits. There has to be something.
    const Slot& earliest() const { return at(arrivals_[oldest_]); }  // by arrival
    Slot& lowest(int64_t from);

  private:
    size_t placeOf(int64_t number) const {
        return static_cast<size_t>(number) & (slots_.size() - 1);
    }
    Slot& at(int64_t number) { return slots_[placeOf(number)]; }
    const Slot& at(int64_t number) const { return slots_[placeOf(number)]; }

    PayloadPool* pool_;
    std::vector<Slot> slots_;
    // The numbers that were held, as they came. The oldest waits still, others have been let go.
    std::vector<int64_t> arrivals_;
    size_t oldest_ = 0, listed_ = 0;
    size_t held_ = 0;
    bool begun_ = false;
    uint32_t ssrc_ = 0;
    uint32_t order_ = 0;
    int64_t highest_ = 0;
};

}  // namespace ts

#endif
