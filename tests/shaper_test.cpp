// What leaves at a constant rate or at a stream's own pace, in virtual time.
#include <bitstream/mpeg/ts.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>

#include "ConstantRate.h"
#include "OwnPace.h"
#include "Pacer.h"
#include "StreamSupport.h"

namespace {

using ts::ConstantRate;
using ts::InputKind;
using Clock27 = int64_t;  // ticks of 27 MHz

constexpr Clock27 kSecond = 27'000'000, kWrap = (Clock27{1} << 33) * 300;
constexpr ts::Time kEpoch = std::chrono::hours(1000);
constexpr uint16_t kNull = 0x1FFF;

// From `b` to `a`, whichever way is shorter.
Clock27 apart(Clock27 a, Clock27 b) {
    const Clock27 ahead = ((a - b) % kWrap + kWrap) % kWrap;
    return ahead > kWrap / 2 ? ahead - kWrap : ahead;
}

ts::Time toTime(Clock27 ticks) {
    return ts::Time(ticks / 27 * 1000 + ticks % 27 * 1000 / 27);
}

// Slot n of a constant rate, in ticks.
Clock27 slotTime(size_t n, uint32_t rate, size_t size = 188) {
    return static_cast<Clock27>(static_cast<long double>(n * size * 8) * kSecond / rate);
}

// What a packet came with, which bytes 12 to 35 hold.
struct Source {
    int64_t Number;  // null packets are not counted
    Clock27 Due;
    Clock27 Pcr;
};

struct TestPacket {
    explicit TestPacket(const uint8_t* p) : Pid(ts_get_pid(p)) {
        EXPECT_TRUE(ts_validate(p));
        IsSource = Pid != kNull && ts_has_payload(p);
        memcpy(&From, p + 12, sizeof(From));
        if (ts_has_adaptation(p) && ts_get_adaptation(p) >= 7 && tsaf_has_pcr(p)) {
            Pcr = static_cast<Clock27>(tsaf_get_pcr(p) * 300 + tsaf_get_pcrext(p));
            Announced = tsaf_has_discontinuity(p);
        }
    }
    uint16_t Pid;
    bool IsSource;  // and not put in
    Source From;
    std::optional<Clock27> Pcr;
    bool Announced = false;  // a discontinuity
};

struct TestStream {
    void Add(uint16_t pid, Clock27 due, std::optional<Clock27> pcr = {}) {
        const Source source{Count, due, pcr.value_or(0)};
        PacketFields fields{.pid = pid, .counter = Counters[pid]++};
        if (pcr) {
            fields.pcr = (*pcr + kWrap) % kWrap;
            fields.discontinuous = std::exchange(Announce, false);
        }
        Count += pid != kNull;
        std::string packet = Packet(fields, Size);
        memcpy(&packet[12], &source, sizeof(source));
        Data.insert(Data.end(), packet.begin(), packet.end());
    }
    // Packets that are spread evenly: the first has a PCR, the third is a null packet.
    void Interval(int64_t packets, Clock27 length = kSecond / 25) {
        for (int64_t i = 0; i < packets; ++i) {
            const Clock27 due = Due + length * i / packets;
            if (i == 0)
                Add(0x100, due, due + Offset);
            else if (i == packets / 2 && Other != 0)
                Add(0x101, due, due + Other);
            else
                Add(i == 2 ? kNull : i % 3 == 1 ? 0x100 : 0x200, due);
        }
        Due += length;
    }
    // Intervals of varying size. The mean is 40 packets, which is 1000 in a second.
    void Pictures(int64_t count, int64_t largest = 120) {
        for (int64_t i = 0; i < count; ++i)
            Interval(i % 12 == 0 ? largest : 20 + i * 7 % 27);
    }

    size_t Size = 188;
    Clock27 Offset = 0;  // of the PCRs
    Clock27 Other = 0;   // the same of a second programme, which is there if this is not 0
    bool Announce = false;
    std::function<Clock27(Clock27 due)> Arrival = {};  // of live input
    std::map<uint16_t, uint8_t> Counters = {};
    Clock27 Due = 0;
    int64_t Count = 0;
    std::vector<uint8_t> Data = {};
};

// All that comes out, and when each datagram does.
struct Outcome {
    bool BeginsWith(const TestStream& stream) const {
        return Data.size() >= stream.Data.size() &&
               std::equal(stream.Data.begin(), stream.Data.end(), Data.begin());
    }
    void ExpectTimes(uint32_t rate, int64_t tolerance_ns = 80, size_t size = 188) const {
        for (size_t i = 0; i < Times.size(); ++i) {
            const auto time = Times[i] - Times[0] - toTime(slotTime(7 * i, rate, size));
            ASSERT_LE(std::abs(time.count()), tolerance_ns) << "datagram " << i;
        }
    }
    std::vector<uint8_t> Data;
    std::vector<TestPacket> Packets;
    std::vector<ts::Time> Times;
};

// Pulls datagram by datagram, each when it is due.
void drain(ts::Shaper& shaper, size_t size, ts::Time until, Outcome& outcome) {
    std::vector<uint8_t> datagram(7 * size);
    for (auto next = shaper.next(); next && *next <= until; next = shaper.next()) {
        EXPECT_EQ(shaper.pull(datagram, *next - ts::Time(1000)), 0u);
        ASSERT_EQ(shaper.pull(datagram, *next + ts::Time(50)), datagram.size());
        outcome.Data.insert(outcome.Data.end(), datagram.begin(), datagram.end());
        for (size_t i = 0; i < 7; ++i)
            outcome.Packets.emplace_back(&datagram[i * size]);
        outcome.Times.push_back(*next);
    }
    EXPECT_EQ(shaper.pull(datagram, until), 0u);
}

// As a file, which is read when the shaper needs it, or as live input, which comes by itself.
Outcome play(ts::Shaper& shaper, const TestStream& stream) {
    Outcome outcome;
    std::span<const uint8_t> rest = stream.Data;
    for (ts::Time now = kEpoch; !rest.empty(); now += std::chrono::milliseconds(20)) {
        const auto time = [&] {
            return kEpoch + toTime(stream.Arrival(TestPacket(rest.data()).From.Due));
        };
        while (!rest.empty() && (stream.Arrival ? time() <= now : shaper.needsInput(now))) {
            const size_t size = std::min(rest.size(), stream.Size * (stream.Arrival ? 1 : 50));
            shaper.push(rest.first(size), stream.Arrival ? time() : now);
            rest = rest.subspan(size);
        }
        shaper.pull({}, now);
        drain(shaper, stream.Size, now, outcome);
    }
    shaper.finish();
    drain(shaper, stream.Size, ts::Time::max(), outcome);
    return outcome;
}

// Another way to the same code: it has its sixteen roots.
void expectParity(const uint8_t* packet) {
    for (int root = 0; root < 16; ++root) {
        unsigned int sum = 0;
        for (size_t i = 0; i < 204; sum ^= packet[i++]) {
            for (int n = 0; n < root; ++n)
                sum = sum << 1 ^ ((sum & 0x80) != 0 ? 0x11D : 0);
        }
        ASSERT_EQ(sum, 0u);
    }
}

// That all packets are there, in order, in datagrams of constant rate; that by their clock none
// comes later than in the source, or more than the delay too early; and that the PCRs stand where
// their position says: no more clocks begin than there are PIDs, and splices of each. No two are
// further apart than 100 ms, or than 16 packets, where these take longer.
void expectConstantRate(const Outcome& outcome, const TestStream& stream, uint32_t rate,
                        size_t clocks = 1) {
    outcome.ExpectTimes(rate, 80, stream.Size);
    std::map<uint16_t, Clock27> offsets, slots;
    std::map<uint16_t, uint8_t> counters;
    size_t begun = 0;
    int64_t next = 0;
    for (size_t n = 0; n < outcome.Packets.size(); ++n) {
        const TestPacket& packet = outcome.Packets[n];
        if (stream.Size == 204 && (packet.Pid == kNull || packet.Pcr))
            expectParity(&outcome.Data[n * 204]);
        if (packet.Pid == kNull)
            continue;
        const uint8_t counter = ts_get_cc(&outcome.Data[n * stream.Size]);
        if (packet.IsSource) {
            ASSERT_EQ(packet.From.Number, next++);
            counters[packet.Pid] = counter;
        }
        ASSERT_EQ(counter, counters.at(packet.Pid));
        if (!packet.Pcr)
            continue;
        const Clock27 slot = slotTime(n, rate, stream.Size);
        const auto [last, isFirst] = slots.try_emplace(packet.Pid, slot);
        ASSERT_LE(slot - std::exchange(last->second, slot),
                  std::max(kSecond / 10, slotTime(16, rate, stream.Size)))
            << n;
        const Clock27 offset = *packet.Pcr - slot;
        const auto [clock, isNew] = offsets.try_emplace(packet.Pid, offset);
        begun += isNew || std::abs(apart(offset, clock->second)) > 1;
        if (std::abs(apart(offset, clock->second)) > 1)
            clock->second = offset;
        if (!packet.IsSource) {
            const PacketFields fields{packet.Pid, counter, false,
                                      false,      false,   static_cast<uint64_t>(*packet.Pcr)};
            ASSERT_EQ(memcmp(&outcome.Data[n * stream.Size], Packet(fields).data(), 188), 0);
            continue;
        }
        const Clock27 late = apart(*packet.Pcr, packet.From.Pcr);
        ASSERT_LE(late, slotTime(1, rate, stream.Size) + 1) << n;
        ASSERT_GE(late, -kSecond / 2) << n;
    }
    EXPECT_EQ(next, stream.Count);
    EXPECT_EQ(begun, clocks);
}

TEST(ConstantRate, PcrsAreExactAndNothingIsLateOrLostWhateverTheClocksDo) {
    // Size, offsets of the PCRs, by what the clock jumps in the middle, announced?, clocks
    static const std::tuple<size_t, Clock27, Clock27, Clock27, bool, size_t> kCases[] = {
        {204, -3 * kSecond, 0, 0, false, 1},
        {188, 5 * kSecond, 77 * kSecond + 13, 0, false, 2},
        {188, 0, 0, 3000 * kSecond, false, 2},
        {188, 5000 * kSecond, 0, -3000 * kSecond, false, 2},
        {188, 0, 0, kSecond / 10, true, 2},
        {204, kSecond, 77 * kSecond, -20 * kSecond, true, 3}};
    for (const auto& [size, offset, other, jump, announced, clocks] : kCases) {
        SCOPED_TRACE(testing::Message() << offset << ' ' << jump);
        TestStream stream{size, offset, other};
        stream.Pictures(200);
        stream.Offset += jump;
        stream.Announce = announced;
        stream.Pictures(200);
        const auto rate = static_cast<uint32_t>(9'377 * size);
        ConstantRate shaper(size, InputKind::kFile, {.rate_bps = rate});
        expectConstantRate(play(shaper, stream), stream, rate, clocks);
        EXPECT_EQ(shaper.status().rateNeeded_bps, 0u);
        EXPECT_FALSE(shaper.status().untouched);
    }
}

TEST(ConstantRate, StaysExactForADayAndThroughWraps) {
    TestStream stream{.Offset = kWrap - 3600 * kSecond};
    ConstantRate shaper(188, InputKind::kFile, {.rate_bps = 40'009});
    for (int64_t i = 0; i < 30 * 3600 * 10; ++i)
        stream.Interval(3 - i % 3, kSecond / 10);
    expectConstantRate(play(shaper, stream), stream, 40'009);
}

TEST(ConstantRate, RateIsTheLeastThatTheBeginningAllowsAndLessKeepsTheClock) {
    TestStream stream;
    stream.Pictures(250);
    ConstantRate free(188, InputKind::kFile, {});
    const Outcome outcome = play(free, stream);
    const uint32_t least = free.rate().value();
    expectConstantRate(outcome, stream, least);
    EXPECT_NEAR(least, 1'504'000 * 1.03, 1'504'000 * 0.08);

    for (size_t i = 0; i < 15; ++i)  // at four times the rate
        stream.Interval(160);
    stream.Pictures(1000);
    const uint32_t needed = 3'400'000;  // 2400 packets in 0.6 s and the delay
    for (const uint32_t rate : {least, least / 10 * 8, 700'000u}) {
        SCOPED_TRACE(rate);
        ConstantRate shaper(188, InputKind::kFile, {.rate_bps = rate});
        const auto packets = play(shaper, stream).Packets;
        EXPECT_EQ(shaper.status().rateNeeded_bps, needed);
        int64_t before = -1;
        Clock27 late = 0;
        for (size_t n = 0; n < packets.size(); ++n) {
            const auto& [pid, isSource, source, pcr, announced] = packets[n];
            if (!isSource)
                continue;
            ASSERT_GT(source.Number, std::exchange(before, source.Number));
            late = slotTime(n, rate) - source.Due;
            ASSERT_LE(late, kSecond * 13 / 5);
            ASSERT_LE(pcr ? std::abs(apart(*pcr, source.Due + late - kSecond / 2)) : 0, 1);
        }
        const int64_t sent = stream.Count - static_cast<int64_t>(shaper.status().dropped);
        EXPECT_NEAR(sent, std::min<int64_t>(rate / 1504 * 253 / 5, stream.Count), 2000);
        if (rate == least) {  // at the end, all is in time again
            EXPECT_EQ(sent, stream.Count);
            EXPECT_LE(std::abs(late), kSecond / 10);
        }
    }
    ts::RateScan scan(188, std::chrono::milliseconds(500));
    EXPECT_TRUE(scan.push(stream.Data));
    ConstantRate enough(188, InputKind::kFile, {.least_bps = scan.find()});
    expectConstantRate(play(enough, stream), stream, needed);
}

// A picture that takes 400 ms parts the PCRs of the source.
TEST(ConstantRate, PcrsArePutInBetweenThePacketsOfALargePictureAndReckonedWith) {
    for (const Clock27 other : {Clock27{0}, 77 * kSecond}) {
        TestStream stream{.Other = other};
        stream.Pictures(600, 700);
        const auto ended = std::exchange(stream.Other, 0) == 0 ? 0 : stream.Count;
        stream.Pictures(60, 30);
        ts::RateScan scan(188, std::chrono::milliseconds(500));
        EXPECT_TRUE(scan.push(stream.Data));
        const uint32_t rate = scan.find() / 100 * 101;
        ConstantRate shaper(188, InputKind::kFile, {.rate_bps = rate});
        const Outcome outcome = play(shaper, stream);
        expectConstantRate(outcome, stream, rate, other == 0 ? 1 : 2);
        EXPECT_EQ(shaper.status().rateNeeded_bps, 0u);
        ConstantRate tight(188, InputKind::kFile, {.rate_bps = rate / 100 * 97});
        play(tight, stream);
        EXPECT_NE(tight.status().rateNeeded_bps, 0u);
        // The clock of a programme that has ended is not kept alive for more than a second.
        int64_t after = 0, last = 0;
        for (const TestPacket& packet : outcome.Packets) {
            after += packet.IsSource && packet.From.Number > ended;
            last = packet.Pid == 0x101 ? after : last;
        }
        EXPECT_LE(last, 1000);
    }
    for (int64_t seed = 1; seed < 20; ++seed) {
        TestStream stream{.Other = seed % 2 * kSecond};
        for (int64_t i = 0; i < 300; ++i)
            stream.Interval(i % (seed + 2) == 0 ? seed * 40 : 3 + i * i * seed % 29);
        ts::RateScan scan(188, std::chrono::milliseconds(500));
        EXPECT_TRUE(scan.push(stream.Data));
        ConstantRate shaper(188, InputKind::kFile, {.rate_bps = ts::roundUpRate(scan.find())});
        play(shaper, stream);
        EXPECT_EQ(shaper.status().rateNeeded_bps, 0u) << seed;
    }
}

TEST(ConstantRate, PcrsArePutInWhereThereIsRoomAndNeverAtTheExpenseOfPackets) {
    TestStream stream;
    for (int64_t i = 0; i < 6000; ++i) {  // as seldom as it may be, and never evenly
        stream.Offset = i % 7 * 150;
        stream.Interval(100, kSecond / 10);
    }
    const uint32_t own = 188 * 8 * 990;  // without the null packets
    for (const uint32_t rate : {own, own + own / 1000, 2 * own}) {
        ConstantRate shaper(188, InputKind::kFile, {.rate_bps = rate});
        const Outcome outcome = play(shaper, stream);
        EXPECT_EQ(shaper.status().dropped + shaper.status().rateNeeded_bps, 0u);
        Clock27 last = 0, longest = 0;
        size_t pcrs = 0;
        for (size_t n = 0; n < outcome.Packets.size(); ++n) {
            if (!outcome.Packets[n].Pcr)
                continue;
            ++pcrs;
            longest = std::max(longest, slotTime(n, rate) - std::exchange(last, slotTime(n, rate)));
        }
        EXPECT_LE(longest, kSecond / 1000 * (rate == 2 * own ? 41 : 103));
        EXPECT_NEAR(static_cast<double>(pcrs), rate == 2 * own ? 18'000 : 6000, 100);
    }
}

TEST(ConstantRate, ConstantStreamIsNotTouchedUntilItVaries) {
    TestStream stream;
    for (size_t i = 0; i < 500; ++i) {  // with PCRs that are half a microsecond off
        stream.Offset = kWrap - 5 * kSecond + (i % 3 == 0 ? 13 : i % 3 == 1 ? -13 : 0);
        stream.Interval(40);
    }
    const uint32_t own = 188 * 8 * 1000;
    for (const auto& rate : {std::optional<uint32_t>(), std::optional(own)}) {
        ConstantRate shaper(188, InputKind::kFile, {.rate_bps = rate});
        const Outcome outcome = play(shaper, stream);
        EXPECT_EQ(shaper.rate(), own);
        EXPECT_TRUE(shaper.status().untouched && outcome.BeginsWith(stream));
        EXPECT_EQ(outcome.Times.at(0), kEpoch);
        outcome.ExpectTimes(own, 2000);  // the noise of two PCRs
    }
    ConstantRate faster(188, InputKind::kFile, {.rate_bps = own + own / 100});
    play(faster, stream);
    EXPECT_FALSE(faster.status().untouched);
    EXPECT_NEAR(static_cast<double>(faster.status().added), 200 + 500, 50);

    for (size_t i = 0; i < 250; ++i)
        stream.Interval(i % 2 == 0 ? 10 : 40);
    ConstantRate varies(188, InputKind::kFile, {});
    const auto packets = play(varies, stream).Packets;
    EXPECT_FALSE(varies.status().untouched);
    std::optional<Clock27> clock;
    for (size_t n = 0; n < packets.size(); ++n) {
        if (!packets[n].Pcr)
            continue;
        const Clock27 offset = *packets[n].Pcr - slotTime(n, own);
        EXPECT_FALSE(packets[n].Announced && clock);
        if (packets[n].Announced)
            clock = offset;
        ASSERT_LE(std::abs(apart(offset, clock.value_or(offset))), 1);
    }
    EXPECT_TRUE(clock);

    for (size_t i = 0; i < 250; ++i)
        stream.Interval(160);
    ts::RateScan scan(188, std::chrono::milliseconds(500));
    EXPECT_TRUE(scan.push(stream.Data));
    ConstantRate rises(188, InputKind::kFile, {.least_bps = scan.find()});
    play(rises, stream);
    EXPECT_EQ(rises.status().rateNeeded_bps + rises.status().dropped, 0u);

    for (const auto delay : {std::chrono::milliseconds(0), std::chrono::milliseconds(3)}) {
        TestStream slow;
        for (int i = 0; i < 100; ++i)
            slow.Interval(10, kSecond / 4);
        ts::RateScan first(188, delay);
        EXPECT_TRUE(first.push(slow.Data));
        ConstantRate shaper(188, InputKind::kFile, {.least_bps = first.find(), .delay = delay});
        EXPECT_TRUE(play(shaper, slow).BeginsWith(slow));
    }
}

TEST(ConstantRate, StreamWithoutPcrsNeedsARateAndGetsIt) {
    TestStream stream;
    for (size_t i = 0; i < 20'003; ++i)
        stream.Add(0x200, 0);
    ConstantRate lost(188, InputKind::kFile, {});
    play(lost, stream);
    EXPECT_FALSE(lost.rate());
    ConstantRate shaper(188, InputKind::kFile, {.rate_bps = 3'000'000});
    expectConstantRate(play(shaper, stream), stream, 3'000'000, 0);
    EXPECT_LT(shaper.status().added, 7u);
}

// The jitter of a network: what comes within 30 ms comes together.
Clock27 jitter(Clock27 time) {
    return (time / (kSecond * 3 / 100) + 1) * (kSecond * 3 / 100);
}

TEST(ConstantRate, LiveStreamKeepsItsRateThroughJitterDriftAndPauses) {
    TestStream stream;
    stream.Pictures(15'000);
    const uint32_t rate = 1'900'000;
    for (const int64_t drift_ppm : {0, 80, -80}) {
        stream.Arrival = [&](Clock27 due) {
            const Clock27 pause = due > kSecond * 590 ? kSecond * 3 : 0;
            return jitter(due + due / 1'000'000 * drift_ppm + pause);
        };
        ConstantRate shaper(188, InputKind::kLive, {.rate_bps = rate});
        const Outcome outcome = play(shaper, stream);
        int64_t next = 0;
        size_t announced = 0;
        std::optional<Clock27> before;  // a PCR, and its slot
        Clock27 beforeSlot = 0;
        for (size_t n = 0; n < outcome.Packets.size(); ++n) {
            const TestPacket& packet = outcome.Packets[n];
            const Clock27 slot = slotTime(n, rate);
            if (packet.IsSource) {
                ASSERT_EQ(packet.From.Number, next++);
                // It leaves after it came, within latency and delay.
                const auto waited = outcome.Times[0] - kEpoch + toTime(slot) -
                                    toTime(stream.Arrival(packet.From.Due));
                ASSERT_GE(waited, std::chrono::milliseconds(-20));
                ASSERT_LE(waited, std::chrono::milliseconds(800));
            }
            if (!packet.Pcr)
                continue;
            announced += packet.Announced;
            if (before && !packet.Announced) {  // 500 ns, at the rate of the source's clock
                const Clock27 step = slot - beforeSlot;
                ASSERT_LE(std::abs(apart(*packet.Pcr, *before + step)), 13 + step * 11 / 100'000);
            }
            before = packet.Pcr;
            beforeSlot = slot;
        }
        EXPECT_EQ(next, stream.Count);
        EXPECT_EQ(announced, 1u);
        EXPECT_EQ(shaper.status().rateNeeded_bps, 0u);
    }
}

TEST(OwnPace, DatagramsLeaveAtTheGivenRateOrAtTheTimeOfThePcrs) {
    TestStream constant{.Offset = kWrap - 5 * kSecond}, noisy, spliced, steps, jumps;
    for (int64_t i = 0; i < 300; ++i) {
        noisy.Offset = i % 2 * 100'000;
        spliced.Offset = i < 150 ? 900 * kSecond : 0;
        constant.Interval(40);
        noisy.Interval(40);
        spliced.Interval(40);
        steps.Interval(i / 50 % 2 == 0 ? 13 : 213);
        jumps.Interval(i / 5 % 2 == 0 ? 13 : 213);  // within what is measured first
    }
    const struct {
        const TestStream& stream;
        std::optional<uint32_t> given_bps;
        bool keepsRate, varies;
        Clock27 tolerance;
    } cases[] = {
        {constant, {}, false, false, kSecond / 500}, {constant, {}, true, false, kSecond / 500},
        {noisy, {}, true, false, kSecond / 20},      {spliced, {}, false, false, kSecond / 500},
        {spliced, {}, true, false, kSecond / 500},   {constant, 4'000'000, true, false, 0},
        {steps, {}, false, false, kSecond * 3 / 10}, {steps, {}, true, true, kSecond * 4 / 10},
        {jumps, {}, true, true, kSecond / 10}};
    for (const auto& [stream, given_bps, keepsRate, varies, tolerance] : cases) {
        ts::OwnPace shaper(188, given_bps, keepsRate);
        const Outcome outcome = play(shaper, stream);
        EXPECT_EQ(shaper.varies(), varies);
        EXPECT_TRUE(outcome.BeginsWith(stream)) << "not a byte is changed";
        EXPECT_EQ(outcome.Times.size(), (stream.Data.size() / 188 + 6) / 7);
        EXPECT_TRUE(!varies || shaper.rate() >= 213 * 188 * 8 * 25) << "a channel keeps up";
        if (given_bps) {
            outcome.ExpectTimes(*given_bps);
            continue;
        }
        for (size_t i = 0; i < outcome.Times.size(); ++i) {
            const auto late =
                outcome.Times[i] - outcome.Times[0] - toTime(outcome.Packets[i * 7].From.Due);
            ASSERT_LE(std::abs(late.count()), toTime(tolerance).count()) << i;
        }
    }
}

TEST(OwnPace, AStreamWithMoreInASecondThanIsReadAheadIsToldByLess) {
    TestStream stream;
    for (int i = 0; i < 12; ++i)
        stream.Interval(8000);
    ts::OwnPace shaper(188, std::nullopt, false);
    shaper.push(stream.Data, kEpoch);
    EXPECT_FALSE(shaper.needsInput(kEpoch));
    EXPECT_NEAR(shaper.rate().value_or(0), 300.8e6, 1e6);
}

TEST(OwnPace, AStreamWhosePcrsEndGoesOnAtItsRate) {
    TestStream stream;
    for (int i = 0; i < 125; ++i)
        stream.Interval(40);
    for (int64_t i = 0; i < 15'000; ++i)
        stream.Add(0x200, stream.Due + i * kSecond / 1000);
    ts::OwnPace shaper(188, std::nullopt, false);
    const std::vector<ts::Time> times = play(shaper, stream).Times;
    EXPECT_NEAR(static_cast<double>((times.back() - times[0]).count()), 20e9, 5e7);
}

TEST(Pacer, KeepsTheDelayFromTheBeginningHoweverItBegins) {
    for (const bool backlog : {true, false}) {
        TestStream stream;
        for (int i = 0; i < 250; ++i)  // what came before is there at once, or PCRs are far apart
            backlog ? stream.Interval(40) : stream.Interval(400, kSecond * 2 / 5);
        stream.Arrival = [&](Clock27 due) {
            return jitter(backlog ? std::max(due, kSecond * 3 / 5) : due);
        };
        ts::Pacer pacer(188, InputKind::kLive, {});
        const Outcome outcome = play(pacer, stream);
        EXPECT_EQ(pacer.status().breaks, 0u);
        for (size_t i = 0; i < outcome.Times.size(); ++i) {
            const Source& from = outcome.Packets[i * 7].From;
            if (from.Due < kSecond * 3 / 5)
                continue;
            const ts::Time came = toTime(stream.Arrival(from.Due));
            ASSERT_NEAR((outcome.Times[i] - kEpoch - came).count() * 1e-6, 200.0, 60.0) << i;
        }
    }
}

TEST(Pacer, AStreamOfWhichEachPcrBeginsANewClockIsPacedByItsArrival) {
    for (const bool announced : {true, false}) {
        TestStream stream{.Arrival = jitter};
        for (int i = 0; i < 500; ++i) {
            stream.Announce = announced;
            stream.Offset = kWrap / 2 - stream.Due * 2 * !announced;  // or it runs backwards
            stream.Interval(40);
        }
        ts::Pacer pacer(188, InputKind::kLive, {});
        const Outcome outcome = play(pacer, stream);
        EXPECT_TRUE(outcome.BeginsWith(stream));
        for (size_t i = 250; i < outcome.Times.size(); ++i) {
            const ts::Time came = toTime(stream.Arrival(outcome.Packets[i * 7].From.Due));
            ASSERT_NEAR((outcome.Times[i] - kEpoch - came).count() * 1e-6, 200.0, 60.0) << i;
        }
    }
}

TEST(Pacer, KeepsAGivenRateAndTheDelayOfALiveSourceWhateverItsClock) {
    TestStream even, varying;
    for (size_t i = 0; i < 10'000; ++i)  // seven minutes, in which the clocks part by 120 ms
        even.Interval(40);
    varying.Pictures(10'000);
    const uint32_t own = 188 * 8 * 1000;
    ts::Pacer file(188, InputKind::kFile, {.rate_bps = own / 3 + 7});
    play(file, even).ExpectTimes(own / 3 + 7);
    for (const auto& rate : {std::optional<uint32_t>(), std::optional(own)}) {
        TestStream& stream = rate ? even : varying;
        for (const int64_t drift_ppm : {300, -300}) {
            stream.Arrival = [&](Clock27 due) { return jitter(due + due / 1'000'000 * drift_ppm); };
            ts::Pacer pacer(188, InputKind::kLive, {.rate_bps = rate});
            const Outcome outcome = play(pacer, stream);
            EXPECT_TRUE(outcome.BeginsWith(stream));
            EXPECT_NEAR(*pacer.rate(), own, rate ? 0 : own / 10);
            EXPECT_EQ(pacer.status().breaks, 0u);
            for (size_t i = 1000; i < outcome.Times.size(); ++i) {
                const ts::Time came = toTime(stream.Arrival(outcome.Packets[i * 7].From.Due));
                ASSERT_NEAR((outcome.Times[i] - kEpoch - came).count() * 1e-6, 200.0, 60.0) << i;
            }
        }
    }
}

}  // namespace
