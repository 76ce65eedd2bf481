// Streams whose every packet says when it is due, and what comes of them, in virtual time.
#ifndef TESTS_SHAPERSUPPORT_H
#define TESTS_SHAPERSUPPORT_H

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <vector>

#include "Shaper.h"

using Bytes = std::vector<uint8_t>;
using Clock27 = int64_t;  // ticks of 27 MHz
inline constexpr Clock27 kSecond = 27'000'000;
inline constexpr Clock27 kWrap = (Clock27{1} << 33) * 300;

// One of the streams' packets: bytes 12 to 19 hold its number, 20 to 27 when it is due.
struct TestPacket {
    uint16_t pid = 0x100;
    std::optional<Clock27> pcr = std::nullopt;
    bool announced = false;  // a discontinuity
    int64_t number = 0;
    Clock27 due = 0;
};

inline void append(Bytes& stream, const TestPacket& packet, size_t size) {
    const size_t at = stream.size();
    stream.resize(at + size, static_cast<uint8_t>(packet.number));
    uint8_t* const p = stream.data() + at;
    p[0] = 0x47;
    p[1] = static_cast<uint8_t>(packet.pid >> 8);
    p[2] = static_cast<uint8_t>(packet.pid);
    p[3] = packet.pcr ? 0x30 : 0x10;
    if (packet.pcr) {
        const Clock27 pcr = (*packet.pcr % kWrap + kWrap) % kWrap;
        p[4] = 7;
        p[5] = static_cast<uint8_t>(0x10 | (packet.announced ? 0x80 : 0));
        for (int i = 0; i < 4; ++i)
            p[6 + i] = static_cast<uint8_t>(pcr / 300 >> (25 - 8 * i));
        p[10] = static_cast<uint8_t>((pcr / 300 & 1) << 7 | 0x7E | (pcr % 300) >> 8);
        p[11] = static_cast<uint8_t>(pcr % 300);
    }
    std::memcpy(p + 12, &packet.number, 8);
    std::memcpy(p + 20, &packet.due, 8);
}

inline TestPacket parse(const uint8_t* p) {
    TestPacket packet;
    packet.pid = static_cast<uint16_t>((p[1] & 0x1F) << 8 | p[2]);
    std::memcpy(&packet.number, p + 12, 8);
    std::memcpy(&packet.due, p + 20, 8);
    if ((p[3] & 0x20) != 0 && p[4] >= 7 && (p[5] & 0x10) != 0) {
        Clock27 base = 0;
        for (int i = 0; i < 4; ++i)
            base = base << 8 | p[6 + i];
        packet.pcr = (base << 1 | p[10] >> 7) * 300 + ((p[10] & 1) << 8 | p[11]);
        packet.announced = (p[5] & 0x80) != 0;
    }
    return packet;
}

inline ts::Time toTime(Clock27 ticks) {
    return ts::Time(ticks / 27 * 1000 + ticks % 27 * 1000 / 27);
}

// A stream of intervals between PCRs, whose packets are spread evenly.
class TestStream {
  public:
    explicit TestStream(size_t packetSize = 188) : Size(packetSize) {}

    // `packets` of which the first carries the PCR of the PID.
    void Interval(size_t packets, Clock27 length = kSecond / 25, uint16_t pid = 0x100) {
        for (size_t i = 0; i < packets; ++i) {
            const Clock27 due =
                Due + length * static_cast<Clock27>(i) / static_cast<Clock27>(packets);
            const bool other = Other != 0 && i == packets / 2;
            TestPacket packet{i == 0  ? pid
                              : other ? Other
                                      : uint16_t{0x200},
                              {},
                              false,
                              Number++,
                              due};
            if (i == 2 && std::exchange(Null, false))
                packet.pid = 0x1FFF;
            if (i == 0)
                packet.pcr = due + Offset;
            else if (other)
                packet.pcr = due + OtherOffset;
            packet.announced = i == 0 && std::exchange(Announce, false);
            append(Data, packet, Size);
        }
        Due += length;
    }

    size_t Size;
    Bytes Data;
    Clock27 Due = 0;
    Clock27 Offset = 0;  // of the PCRs
    uint16_t Other = 0;  // a second programme's PID, in the middle of each interval
    Clock27 OtherOffset = 0;
    bool Announce = false;
    bool Null = false;  // a null packet comes among the next
    int64_t Number = 0;
};

// All that comes out, and when each datagram does.
struct Outcome {
    Bytes Data;
    std::vector<ts::Time> Times;
};

inline constexpr ts::Time kEpoch = std::chrono::hours(1000);

// Pulls datagram by datagram, each when it is due.
inline void drain(ts::Shaper& shaper, size_t packetSize, ts::Time until, Outcome& outcome) {
    Bytes datagram(7 * packetSize);
    for (auto next = shaper.next(); next && *next <= until; next = shaper.next()) {
        if (shaper.pull(datagram, *next - ts::Time(1000)) != 0)
            ADD_FAILURE() << "a datagram before its time";
        if (shaper.pull(datagram, *next + ts::Time(50)) != datagram.size()) {
            ADD_FAILURE() << "none at its time";
            return;
        }
        outcome.Data.insert(outcome.Data.end(), datagram.begin(), datagram.end());
        outcome.Times.push_back(*next);
    }
    EXPECT_EQ(shaper.pull(datagram, until), 0u);
}

// As a file, which is read when the shaper needs it.
inline Outcome playFile(ts::Shaper& shaper, size_t packetSize, const Bytes& data) {
    Outcome outcome;
    size_t at = 0;
    ts::Time now = kEpoch;
    for (bool ended = false; !ended; now += std::chrono::milliseconds(40)) {
        while (shaper.needsInput(now) && at < data.size()) {
            const size_t count = std::min(50 * packetSize, data.size() - at);
            shaper.push(std::span(data).subspan(at, count), now);
            at += count;
        }
        if (at == data.size())
            shaper.finish();
        drain(shaper, packetSize, now, outcome);
        ended = at == data.size() && !shaper.next();
    }
    return outcome;
}

// As live input: each packet comes when `arrival` says.
inline Outcome playLive(ts::Shaper& shaper, size_t packetSize, const Bytes& data,
                        const std::function<Clock27(const TestPacket&)>& arrival) {
    Outcome outcome;
    size_t at = 0;
    for (ts::Time now = kEpoch; at < data.size(); now += std::chrono::milliseconds(20)) {
        while (at < data.size()) {
            const ts::Time time = kEpoch + toTime(arrival(parse(data.data() + at)));
            if (time > now)
                break;
            shaper.push(std::span(data).subspan(at, packetSize), time);
            at += packetSize;
        }
        shaper.pull({}, now);
        drain(shaper, packetSize, now, outcome);
    }
    shaper.finish();
    drain(shaper, packetSize, ts::Time::max(), outcome);
    return outcome;
}

#endif
