// RTP in order and without duplicates, of one path or of several with the same (SMPTE ST 2022-7).
#ifndef STREAMS_REORDERER_H
#define STREAMS_REORDERER_H

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include "RtpSequence.h"
#include "SequenceBuffer.h"

namespace ts {

// Datagrams that carry RTP, unless it says otherwise.
struct RepairCounts {
    uint64_t received = 0;    // of all paths
    uint64_t delivered = 0;   // each number once
    uint64_t lost = 0;        // numbers that were not delivered
    uint64_t reordered = 0;   // came behind a higher number of their path, in time
    uint64_t repaired = 0;    // came from a decoder of FEC, in time
    uint64_t duplicates = 0;  // came again on the same path
    uint64_t late = 0;        // came after their time was over, and are lost therefore
    uint64_t strays = 0;      // do not belong to the stream
    uint64_t restarts = 0;    // the numbers began elsewhere
    uint64_t ssrcChanges = 0;
    uint64_t raw = 0;       // do not carry RTP, and were delivered
    uint64_t rawExtra = 0;  // neither, but came on a second path at the same time
};

struct PathReport {
    uint64_t received = 0;
    // Numbers that this path did not bring. They are counted when all paths have had the time to
    // bring them, and only from the first on that the path has brought.
    uint64_t lost = 0;
    uint64_t saved = 0;  // of them, those that another path has brought
    Time skew{0};        // behind the path that comes first, of late
    Time greatestSkew{0};
    bool alive = false;  // something came in the last second
};

// What is in order is delivered at once. What is not waits for those in front of it, and not longer
// than the window after it came; then what is missing is given up. A number is not given up earlier
// where all paths have brought higher ones: that would save a little delay where something is lost
// anyway, and lose what a path brings out of order for the first time.
//
// Numbers that are far off, or those of another sender, are held until it is clear what they are.
// They replace the stream as soon as at least two of them belong together, and the stream has
// brought nothing new for the length of the window. As long as it does, they are strays. So of two
// senders on one address, one is delivered.
//
// Datagrams that do not carry RTP are delivered at once, as they come; those of one path only.
//
// Memory is bounded, and so is the work for each datagram, whatever comes. Nothing is allocated or
// copied as long as all is in order.
class Reorderer {
  public:
    static constexpr size_t kMostPaths = 4;
    static constexpr size_t kRepaired = kMostPaths;  // the "path" of what FEC brought back
    static constexpr Time kLongestWindow = std::chrono::seconds(10);

    struct Options {
        Time window = std::chrono::milliseconds(50);
        size_t memory = size_t{32} << 20;  // bytes, for payloads that wait
    };

    struct Delivery {
        std::span<const uint8_t> payload;  // until the sink returns; may be empty
        Time arrival;                      // of the datagram, of its first copy
        uint64_t missing = 0;              // numbers that are given up in front of it
        bool begins = false;  // the first of a sequence: at the start, a restart, another sender
        bool rtp = true;
    };
    // It must not call the object that calls it.
    using Sink = std::function<void(const Delivery&)>;

    explicit Reorderer(const Options& options);
    Reorderer(const Reorderer&) = delete;
    Reorderer& operator=(const Reorderer&) = delete;

    // Arrivals never go back. The path is one of 0 to 3, or kRepaired.
    void push(std::span<const uint8_t> datagram, Time arrival, size_t path, const Sink& sink);
    // Delivers what has waited long enough.
    void release(Time now, const Sink& sink);
    // When release() has something to do. None: not before something comes.
    std::optional<Time> next() const;
    // Delivers all that waits. Nothing is pushed after that.
    void finish(const Sink& sink);

    // A decoder of FEC may take longer to bring something back. The window grows to that, or goes
    // back to what was given at the beginning. New sequences are recognised as fast as before.
    void allowFor(Time repair);
    Time window() const { return window_; }

    const RepairCounts& counts() const { return counts_; }
    PathReport path(size_t path, Time now) const;
    size_t waiting() const { return current_.held() + other_.held(); }
    size_t memory() const { return pool_.bytes(); }  // for what waits, or has waited

  private:
    struct Path {
        PathReport report;
        std::optional<int64_t> joined;  // the first number that counts
        std::optional<int64_t> highest;
        std::optional<Time> last;
    };

    Time silence() const;
    void begin(int64_t number, Time arrival);
    bool continuesOther(const RtpDatagram& datagram) const;
    void pushRaw(std::span<const uint8_t> datagram, Time arrival, size_t path, const Sink& sink);
    void pushNew(int64_t number, const RtpDatagram& datagram, Time arrival, size_t path,
                 const Sink& sink);
    bool fitsBetween(int64_t number, uint32_t timestamp);
    void pushOld(int64_t number, const RtpDatagram& datagram, Time arrival, size_t path,
                 const Sink& sink);
    void pushStray(const RtpDatagram& datagram, Time arrival, size_t path, const Sink& sink);
    void noteBrought(int64_t number, size_t path);
    void noteFresh(int64_t number, Time arrival, size_t path);
    void noteCopy(SequenceBuffer::Slot& slot, Time arrival, size_t path);

    void deliver(std::span<const uint8_t> payload, const SequenceBuffer::Slot& slot,
                 const Sink& sink);
    void deliverRun(const Sink& sink);
    void giveUpTo(int64_t number, const Sink& sink);
    bool isAstray(const SequenceBuffer::Slot& slot) const;
    void releaseDue(Time now, const Sink& sink);
    bool mayTakeOver(Time now) const;
    int64_t findSaid();
    void takeOver(const Sink& sink);
    void dropOther();
    void settle(Time now);
    void settleTo(int64_t number);

    const Time ownWindow_;
    Time window_;
    PayloadPool pool_;
    SequenceBuffer current_;
    SequenceBuffer other_;  // may become the current one
    RepairCounts counts_;
    std::array<Path, kMostPaths> paths_{};

    int64_t next_ = 0;        // the number that is delivered next
    int64_t first_ = 0;       // of the sequence
    Time fresh_{};            // when the stream brought something new
    uint32_t timestamp_ = 0;  // of the last that was delivered, and its arrival
    Time arrival_{};
    uint64_t missing_ = 0;  // in front of the next delivery
    bool begins_ = false;
    int64_t settled_ = 0;  // all below is counted for the paths
    int64_t mark_ = 0;     // the next number when it was looked at last
    Time marked_{};

    int64_t otherFirst_ = 0;
    uint32_t evidence_ = 0;  // datagrams of the other sequence since the stream brought something
    Time otherLast_{};
    size_t rawPath_ = 0;
    std::optional<Time> rawLast_;
};

}  // namespace ts

#endif
