// Datagrams of RTP that were lost, computed from those that came and from FEC (SMPTE ST 2022-1).
#ifndef STREAMS_FECDECODER_H
#define STREAMS_FECDECODER_H

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "RtpSequence.h"

namespace ts {

struct FecCounts {
    uint64_t received = 0;    // FEC datagrams of the stream
    uint64_t strange = 0;     // what came instead of them, or does not fit the stream
    uint64_t repaired = 0;    // datagrams of the stream; some may have come late after all
    uint64_t unrepaired = 0;  // those that are missing in spite of FEC
};

// The sender lays the stream out in rows of L datagrams, D rows to a matrix. It sends the parity of
// each column to the stream's port + 2, and perhaps that of each row to the port + 4. Where just
// one datagram of a column or row is missing, it is restored with all of its bytes, and may be what
// a row or column was lacking in its turn.
//
// What is restored goes to Reorderer::push() as kRepaired. It comes when the parity comes, which is
// up to two matrices later: L * D datagrams for the matrix, and as many again where the sender
// spreads its parity over the time of the next. Whoever puts the datagrams in order has to wait as
// long for each gap; wait() tells how long, by what was seen, and Reorderer::allowFor() takes it.
//
// The memory is bounded, and so is the work for each datagram, whatever comes.
class FecDecoder {
  public:
    // Takes a whole datagram. It must not call the object that calls it.
    using Sink = std::function<void(std::span<const uint8_t> datagram)>;

    FecDecoder() : slots_(kRemembered) {}

    // Arrivals never go back. Copies may come, and any order.
    void pushMedia(std::span<const uint8_t> datagram, Time arrival, const Sink& sink);
    void pushFec(std::span<const uint8_t> datagram, Time arrival, const Sink& sink);

    // From a datagram to the parity that covers it; the most of the last 10 to 20 s.
    Time wait(Time now) const;
    // Of the matrix, as far as it is known; 0 otherwise.
    unsigned columns() const { return columns_; }
    unsigned rows() const { return rows_; }
    const FecCounts& counts() const { return counts_; }

  private:
    // More than two matrices of 20 by 20.
    static constexpr int64_t kRemembered = 1024;
    static constexpr size_t kMostPending = 128;

    struct Slot {
        int64_t number = -1;
        Time arrival{};
        std::vector<uint8_t> datagram;
    };
    // Numbers base, base + offset, and so on.
    struct Parity {
        int64_t base = 0;
        int64_t offset = 1;
        int64_t count = 0;
        int64_t missing = 0;
        std::vector<uint8_t> datagram;

        bool covers(int64_t number) const {
            const int64_t distance = number - base;
            return distance >= 0 && distance % offset == 0 && distance / offset < count;
        }
    };

    bool follow(const RtpDatagram& media, std::span<const uint8_t> datagram);
    bool has(int64_t number) const { return slotOf(number).number == number; }
    const Slot& slotOf(int64_t number) const {
        return slots_[static_cast<size_t>(number % kRemembered)];
    }
    void store(int64_t number, std::span<const uint8_t> datagram, Time arrival);
    void noteWait(const Parity& parity, Time arrival);
    void repair(Time arrival, const Sink& sink);
    // The number that is missing, where it can be restored.
    std::optional<int64_t> repairable(const Parity& parity) const;
    bool restore(const Parity& parity, int64_t number);
    void dropPending(size_t index);

    std::vector<Slot> slots_;
    std::vector<Parity> pending_;  // of which more than one datagram is missing, or the newest
    std::vector<Parity> spare_;
    std::vector<uint8_t> restored_;
    FecCounts counts_;

    bool begun_ = false;
    uint32_t ssrc_ = 0;
    int64_t highest_ = 0;
    int64_t first_ = 0;
    int64_t settled_ = 0;                // below, what is missing has been counted
    std::optional<uint16_t> elsewhere_;  // follows a datagram that did not belong
    uint32_t elsewhereSsrc_ = 0;

    unsigned columns_ = 0, rows_ = 0;
    struct Age {
        Time time{0};
        int64_t numbers = 0;
    };
    std::array<Age, 2> ages_;  // the most in this period and in the last
    Time period_{};
};

}  // namespace ts

#endif
