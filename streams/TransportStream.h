// Reading MPEG transport streams (ISO/IEC 13818-1): where the packets are, at what rate they are
// meant to flow, and whether any are missing.
#ifndef STREAMS_TRANSPORTSTREAM_H
#define STREAMS_TRANSPORTSTREAM_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

inline constexpr size_t kPacketBytes = 188;
inline constexpr size_t kPacketWithParityBytes = 204;  // with 16 bytes of Reed-Solomon parity
inline constexpr size_t kPacketsPerDatagram = 7;       // as many as fit an Ethernet frame
inline constexpr uint8_t kSyncByte = 0x47;
inline constexpr uint16_t kNullPid = 0x1FFF;

struct PacketLayout {
    size_t packetSize;  // 188 or 204
    size_t offset;      // of the first packet
};

// Looks for the first place from which on the sync bytes stand one packet apart: five of them, or
// as many as the data has room for, but three at least.
std::optional<PacketLayout> findPackets(std::span<const uint8_t> data);

// The same for packets of that size, as an offset. Where more data is to come, only a run of five
// counts.
std::optional<size_t> findPackets(std::span<const uint8_t> data, size_t packetSize,
                                  bool moreToCome);

// What a packet carries behind its header and adaptation field; may be nothing.
std::span<const uint8_t> packetPayload(const uint8_t* packet);

// Whether the adaptation field is there and has its flags, which a field of length 0 has not.
bool hasAdaptationFlags(const uint8_t* packet);

// The size is 188, or 204 with the right parity.
void writeNullPacket(uint8_t* packet, size_t packetSize);

// Appends `count` null packets of that size.
void appendNullPackets(std::vector<uint8_t>& data, size_t packetSize, size_t count);

// The clock of a stream as it stands in a packet, in ticks of 27 MHz.
struct Pcr {
    uint16_t pid;
    uint64_t ticks;
    bool discontinuous;  // by the packet's own word, a new clock begins here
};
inline constexpr uint64_t kPcrHz = 27'000'000;
inline constexpr uint64_t kPcrModulus = (uint64_t{1} << 33) * 300;  // where it wraps

// None: the packet has no PCR, or is marked as damaged.
std::optional<Pcr> readPcr(const uint8_t* packet);

// Replaces the PCR of a packet that has one. `announced`: a new clock is said to begin here.
void writePcr(uint8_t* packet, uint64_t ticks, bool announced);

// A packet that has nothing but a PCR. `counter` is that of the packet of its PID before it, since
// only a payload counts on (ISO/IEC 13818-1, 2.4.3.3). The size is 188, or 204 with the parity.
void writePcrPacket(uint8_t* packet, size_t packetSize, uint16_t pid, uint8_t counter,
                    uint64_t ticks);

// Ticks from one PCR of a PID to the next. None: a splice, where one clock ends and another begins;
// a PCR that wraps is none.
std::optional<uint64_t> pcrStep(uint64_t before, const Pcr& next);

// Goes from PCR to PCR of each PID.
class PcrSteps {
  public:
    struct Step {
        uint16_t pid;
        uint64_t begin;                 // packets in front of the earlier PCR
        uint64_t packets;               // from there to this one
        std::optional<uint64_t> ticks;  // none: a clock begins here
    };
    // Packets are added in order, each of them, or the PCR of each, where it is known already.
    // Tells the step that ends with this packet.
    std::optional<Step> add(const std::optional<Pcr>& pcr);

    uint64_t packets() const { return packets_; }  // that were added

  private:
    struct Clock {
        uint64_t lastPcr;
        uint64_t lastPosition;
    };
    uint64_t packets_ = 0;
    std::unordered_map<uint16_t, Clock> clocks_;
};

// Goes from PCR to PCR. Of several PIDs with PCRs the one is followed that is, until it falls
// silent.
class PcrIntervals {
  public:
    explicit PcrIntervals(size_t packetSize) : packetSize_(packetSize) {}

    struct Interval {
        uint64_t gapBytes;  // in front of it, since the last one: what no clock covers
        uint64_t bytes;
        uint64_t ticks;  // never 0
    };
    // Packets are added in order, each of them. Tells the interval that ends with this packet.
    std::optional<Interval> add(const uint8_t* packet);

    uint64_t bytes() const { return steps_.packets() * packetSize_; }  // of all packets added

  private:
    size_t packetSize_;
    PcrSteps steps_;
    uint64_t followedTo_ = 0;  // packets
};

// The time that passes in a stream by its own clock, or at the given bitrate while it has none.
class StreamTime {
  public:
    StreamTime(size_t packetSize, std::optional<uint32_t> bitrate_bps)
        : intervals_(packetSize), bitrate_bps_(bitrate_bps) {}

    // The time in front of the packet; where the stream has a clock, it moves with the PCRs only.
    std::chrono::nanoseconds add(const uint8_t* packet);

    bool isKnown() const { return clocked_ || bitrate_bps_; }

  private:
    PcrIntervals intervals_;
    std::optional<uint32_t> bitrate_bps_;
    bool clocked_ = false;
    double seconds_ = 0.0;
};

// The rate of a stream by its own clock: bytes between the PCRs of one PID, over the time between
// them. Of several PIDs with PCRs the one counts that covers the longest time.
class PcrBitrate {
  public:
    explicit PcrBitrate(size_t packetSize) : packetSize_(packetSize) {}

    // Packets are added in order, each of them, or the PCR of each, where it is known already.
    void add(const uint8_t* packet) { add(readPcr(packet)); }
    void add(const std::optional<Pcr>& pcr);

    // Bits per second, all bytes of the packets counted; nothing before two PCRs have been seen.
    std::optional<uint64_t> bitrate() const;

    // Time covered by the clock that bitrate() goes by.
    double seconds() const;

  private:
    struct Clock {
        uint64_t ticks = 0;
        uint64_t packets = 0;
    };
    const Clock* longest() const;

    size_t packetSize_;
    PcrSteps steps_;
    std::unordered_map<uint16_t, Clock> clocks_;
};

enum class Continuity { kInOrder, kDuplicate, kJump };

// Counts the places where the continuity counter of a PID jumps (ISO/IEC 13818-1, 2.4.3.3).
class ContinuityCounter {
  public:
    ContinuityCounter() { last_.fill(kUnknown); }

    // What the packet is to the one of its PID before it.
    Continuity add(const uint8_t* packet);
    uint64_t errors() const { return errors_; }
    // Packets that lack at the jumps: a jump tells them but for multiples of sixteen.
    uint64_t missing() const { return missing_; }
    // Takes any counter of a PID for the first one.
    void restart() { last_.fill(kUnknown); }

  private:
    static constexpr size_t kPids = 0x2000;
    static constexpr uint8_t kUnknown = 0xFF;
    static constexpr uint8_t kRepeated = 0x80;  // the last packet was the one permitted duplicate

    std::array<uint8_t, kPids> last_{};
    uint64_t errors_ = 0;
    uint64_t missing_ = 0;
};

// Cuts a stream that comes in pieces of any length into packets, and finds them again after bytes
// that are none. A single wrong sync byte between packets is passed over; two in a row are a loss
// of synchronisation, which five right ones end (ISO/IEC 13818-1, G.1).
class PacketSplitter {
  public:
    using Sink = std::function<void(const uint8_t* packet)>;

    void feed(std::span<const uint8_t> bytes, const Sink& sink);

    size_t packetSize() const { return packetSize_; }  // 0 = not found (any more)
    uint64_t packets() const { return packets_; }
    uint64_t syncLosses() const { return syncLosses_; }
    uint64_t syncByteErrors() const { return syncByteErrors_; }

  private:
    bool synchronise();
    size_t take(std::span<const uint8_t> bytes, const Sink& sink);

    std::vector<uint8_t> pending_;
    size_t packetSize_ = 0;
    uint64_t packets_ = 0;
    uint64_t syncLosses_ = 0;
    uint64_t syncByteErrors_ = 0;
};

#endif
