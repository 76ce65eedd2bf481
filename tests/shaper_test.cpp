// What leaves at a constant rate or at a stream's own pace, in virtual time.
#include <gtest/gtest.h>

#include "ConstantRate.h"
#include "Pacer.h"
#include "ShaperSupport.h"
#include "TransportStream.h"

namespace {

using std::chrono::milliseconds;
using ts::ConstantRate;
using ts::InputKind;

constexpr uint16_t kNull = 0x1FFF;

// Pictures of a stream whose rate varies: the mean is 40 packets in 40 ms, the largest 120.
size_t picture(size_t i) {
    return i % 12 == 0 ? 120 : 20 + i * 7 % 27;
}

std::vector<TestPacket> parseAll(const Bytes& data, size_t size) {
    std::vector<TestPacket> packets;
    for (size_t at = 0; at < data.size(); at += size) {
        EXPECT_EQ(data[at], 0x47);
        packets.push_back(parse(data.data() + at));
    }
    return packets;
}

// Slot n of a constant rate, in ticks.
Clock27 slotTime(size_t n, size_t size, uint32_t rate) {
    return static_cast<Clock27>(static_cast<long double>(n) * static_cast<long double>(size) * 8 *
                                kSecond / rate);
}

struct Expectation {
    size_t Size = 188;
    uint32_t Rate = 0;
    Clock27 Delay = kSecond / 2;
    size_t Clocks = 1;  // that begin: PIDs, and splices of each
};

// That all packets are there, in order, in datagrams of constant rate; that the PCRs stand where
// their position says; and that by this clock no packet comes later than in the source, or more
// than the delay too early.
void expectConstantRate(const Outcome& outcome, const Bytes& input, const Expectation& expected) {
    const auto [size, rate, delay, clocks] = expected;
    for (size_t i = 0; i < outcome.Times.size(); ++i) {
        const auto time = outcome.Times[i] - outcome.Times[0] - toTime(slotTime(7 * i, size, rate));
        ASSERT_LE(std::abs(time.count()), 80) << "datagram " << i;
    }
    std::vector<TestPacket> source = parseAll(input, size);
    std::erase_if(source, [](const TestPacket& packet) { return packet.pid == kNull; });
    const auto packets = parseAll(outcome.Data, size);
    // Per PID: the clock's beginning, as the offset between position and PCR, in the source, too.
    struct Begin {
        Clock27 Offset;
        Clock27 Source;
    };
    std::map<uint16_t, Begin> begins;
    const Clock27 slot = slotTime(1, size, rate) + 1;
    size_t next = 0, clocksSeen = 0;
    for (size_t n = 0; n < packets.size(); ++n) {
        if (packets[n].pid == kNull)
            continue;
        ASSERT_LT(next, source.size());
        const TestPacket& original = source[next++];
        ASSERT_EQ(packets[n].number, original.number);
        if (!packets[n].pcr)
            continue;
        const Clock27 position = slotTime(n, size, rate);
        const Clock27 offset = (*packets[n].pcr - position % kWrap + kWrap) % kWrap;
        const Clock27 sourceOffset = ((*original.pcr - original.due) % kWrap + kWrap) % kWrap;
        auto [found, isNew] = begins.try_emplace(packets[n].pid);
        if (isNew || found->second.Source != sourceOffset) {
            ++clocksSeen;
            found->second = {offset, sourceOffset};
        }
        Clock27 error = std::abs(offset - found->second.Offset);
        error = std::min(error, kWrap - error);
        ASSERT_LE(error, 1) << "PCR at packet " << n;
        // When it comes by its own clock, less when it does in the source.
        Clock27 late = (*packets[n].pcr - *original.pcr + kWrap) % kWrap;
        late = late > kWrap / 2 ? late - kWrap : late;
        ASSERT_LE(late, slot) << "packet " << n;
        ASSERT_GE(late, -delay) << "packet " << n;
    }
    EXPECT_EQ(next, source.size());
    EXPECT_EQ(clocksSeen, clocks);
}

TEST(ConstantRate, PcrsAreExactAndNothingIsLateOrLostWhateverTheClocksDo) {
    const struct {
        const char* Name;
        size_t Size;
        bool Two;
        Clock27 Offset;  // the first PCR
        Clock27 Splice;  // what the clock jumps by in the middle
        bool Announced;
        size_t Clocks;
    } cases[] = {
        {"plain", 188, false, 0, 0, false, 1},
        {"parity", 204, false, kSecond, 0, false, 1},
        {"wrap", 188, false, -3 * kSecond, 0, false, 1},
        {"two programmes", 188, true, 5 * kSecond, 0, false, 2},
        {"splice ahead", 188, false, 0, 3000 * kSecond, false, 2},
        {"splice back", 188, false, 5000 * kSecond, -3000 * kSecond, false, 2},
        {"announced", 188, false, 0, kSecond / 10, true, 2},
        {"announced back across the wrap", 204, true, kSecond, -20 * kSecond, true, 3},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.Name);
        TestStream stream(test.Size);
        stream.Offset = test.Offset;
        stream.Other = test.Two ? 0x101 : 0;
        stream.OtherOffset = 77 * kSecond + 13;
        for (size_t i = 0; i < 400; ++i) {
            if (i == 200) {
                stream.Offset += test.Splice;
                stream.Announce = test.Announced;
            }
            stream.Null = i % 50 == 7;
            stream.Interval(picture(i));
        }
        const auto rate = static_cast<uint32_t>(9'377 * test.Size);
        ConstantRate shaper(test.Size, InputKind::kFile, {.rate_bps = rate});
        const Outcome outcome = playFile(shaper, test.Size, stream.Data);
        expectConstantRate(outcome, stream.Data, {test.Size, rate, kSecond / 2, test.Clocks});
        EXPECT_EQ(shaper.status().rateNeeded_bps, 0u);
        EXPECT_FALSE(shaper.status().untouched);
    }
}

// Another way to the same code: it has its sixteen roots.
TEST(ConstantRate, ParityIsThatOfTheCode) {
    const auto times2 = [](unsigned int x) { return x << 1 ^ ((x & 0x80) != 0 ? 0x11D : 0); };
    TestStream stream(204);
    for (size_t i = 0; i < 100; ++i)
        stream.Interval(picture(i));
    ConstantRate shaper(204, InputKind::kFile, {.rate_bps = 8'000'000});
    const Outcome outcome = playFile(shaper, 204, stream.Data);
    size_t checked = 0;
    for (size_t at = 0; at < outcome.Data.size(); at += 204) {
        const TestPacket packet = parse(&outcome.Data[at]);
        if (packet.pid != kNull && !packet.pcr)
            continue;
        ++checked;
        for (int root = 0; root < 16; ++root) {
            unsigned int sum = 0;
            for (size_t i = 0; i < 204; ++i) {
                for (int n = 0; n < root; ++n)
                    sum = times2(sum);
                sum ^= outcome.Data[at + i];
            }
            ASSERT_EQ(sum, 0u);
        }
    }
    EXPECT_GT(checked, 1000u);
}

TEST(ConstantRate, StaysExactForDaysAndThroughWraps) {
    TestStream stream;
    stream.Offset = kWrap - 3600 * kSecond;
    const uint32_t rate = 40'009;
    ConstantRate shaper(188, InputKind::kFile, {.rate_bps = rate});
    for (int i = 0; i < 12 * 3600 * 60; ++i)
        stream.Interval(1 + static_cast<size_t>(i % 3), kSecond / 10);
    const Outcome outcome = playFile(shaper, 188, stream.Data);
    expectConstantRate(outcome, stream.Data, {.Rate = rate});
    EXPECT_GT(outcome.Times.back() - outcome.Times.front(), std::chrono::hours(71));
}

TEST(ConstantRate, RateIsTheLeastThatTheBeginningAllowsAndMoreIsReported) {
    TestStream stream;
    for (size_t i = 0; i < 250; ++i)
        stream.Interval(picture(i));
    ConstantRate free(188, InputKind::kFile, {});
    const Outcome outcome = playFile(free, 188, stream.Data);
    const uint32_t rate = free.rate().value();
    expectConstantRate(outcome, stream.Data, {.Rate = rate});
    const double mean = static_cast<double>(stream.Data.size()) * 8 / 10;
    EXPECT_GE(rate, mean * 0.97);
    EXPECT_LE(rate, mean * 1.15);

    for (size_t i = 0; i < 15; ++i)  // at four times the rate
        stream.Interval(160);
    for (size_t i = 0; i < 1000; ++i)
        stream.Interval(picture(i));
    ConstantRate low(188, InputKind::kFile, {.rate_bps = rate});
    const Outcome late = playFile(low, 188, stream.Data);
    const uint32_t needed = low.status().rateNeeded_bps;
    EXPECT_EQ(low.status().dropped, 0u);
    ASSERT_GT(needed, rate);
    ConstantRate enough(188, InputKind::kFile, {.rate_bps = needed});
    expectConstantRate(playFile(enough, 188, stream.Data), stream.Data, {.Rate = needed});
    ConstantRate less(188, InputKind::kFile, {.rate_bps = needed / 10 * 8});
    playFile(less, 188, stream.Data);
    EXPECT_GT(less.status().rateNeeded_bps, needed / 10 * 8);
    // The clock is kept: at the end, all is in time again.
    const auto packets = parseAll(late.Data, 188);
    const auto last = std::find_if(packets.rbegin(), packets.rend(),
                                   [](const TestPacket& packet) { return packet.pcr.has_value(); });
    const Clock27 behind = slotTime(static_cast<size_t>(packets.rend() - last) - 1, 188, rate);
    EXPECT_NEAR(static_cast<double>(behind - last->due), 0.0, kSecond / 10.0);
}

TEST(ConstantRate, FarTooLowARateDropsWhatIsLateAndKeepsTheClock) {
    TestStream stream;
    for (size_t i = 0; i < 1500; ++i)
        stream.Interval(picture(i));
    const uint32_t rate = 700'000;
    ConstantRate shaper(188, InputKind::kFile, {.rate_bps = rate});
    const Outcome outcome = playFile(shaper, 188, stream.Data);
    const auto packets = parseAll(outcome.Data, 188);
    int64_t before = -1;
    for (size_t n = 0; n < packets.size(); ++n) {
        if (packets[n].pid == kNull)
            continue;
        ASSERT_GT(packets[n].number, before);
        before = packets[n].number;
        ASSERT_LE(slotTime(n, 188, rate) - packets[n].due, kSecond * 13 / 5);
        if (packets[n].pcr) {
            const Clock27 offset = (*packets[n].pcr - slotTime(n, 188, rate) + kWrap) % kWrap;
            ASSERT_NEAR(static_cast<double>(offset), kWrap - kSecond / 2.0, 1.0);
        }
    }
    const size_t sent = stream.Data.size() / 188 - shaper.status().dropped;
    EXPECT_NEAR(static_cast<double>(sent), 60.0 * rate / 1504, 3.0 * rate / 1504);
    EXPECT_NEAR(shaper.status().rateNeeded_bps, 1'550'000.0, 150'000.0);
}

// 40 packets in 40 ms, with PCRs that are half a microsecond off, this way and that.
TestStream constantStream(size_t intervals) {
    TestStream stream;
    for (size_t i = 0; i < intervals; ++i) {
        stream.Offset = kWrap - 5 * kSecond + (i % 3 == 0 ? 13 : i % 3 == 1 ? -13 : 0);
        stream.Null = i % 9 == 0;
        stream.Interval(40);
    }
    return stream;
}

TEST(ConstantRate, ConstantStreamIsNotTouchedUntilItVaries) {
    TestStream stream = constantStream(500);
    const uint32_t own = 188 * 8 * 1000;
    for (const auto& rate : {std::optional<uint32_t>(), std::optional(own)}) {
        ConstantRate shaper(188, InputKind::kFile, {.rate_bps = rate});
        const Outcome outcome = playFile(shaper, 188, stream.Data);
        EXPECT_EQ(shaper.rate(), own);
        EXPECT_TRUE(shaper.status().untouched);
        ASSERT_GE(outcome.Data.size(), stream.Data.size());
        EXPECT_TRUE(std::equal(stream.Data.begin(), stream.Data.end(), outcome.Data.begin()));
        for (size_t i = 0; i < outcome.Times.size(); ++i) {
            const auto time = outcome.Times[i] - kEpoch - toTime(slotTime(7 * i, 188, own));
            ASSERT_LE(std::abs(time.count()), 2000);  // the noise of two PCRs
        }
    }
    ConstantRate faster(188, InputKind::kFile, {.rate_bps = own + own / 100});
    playFile(faster, 188, stream.Data);
    EXPECT_FALSE(faster.status().untouched);
    EXPECT_NEAR(static_cast<double>(faster.status().nullPackets), 200 + 500.0 * 40 / 9 / 40, 100);

    for (size_t i = 0; i < 250; ++i)
        stream.Interval(picture(i) / 2);
    ConstantRate varies(188, InputKind::kFile, {});
    const Outcome outcome = playFile(varies, 188, stream.Data);
    EXPECT_FALSE(varies.status().untouched);
    size_t announced = 0;
    Clock27 first = -1;
    const auto packets = parseAll(outcome.Data, 188);
    for (size_t n = 0; n < packets.size(); ++n) {
        announced += packets[n].announced ? 1 : 0;
        if (!packets[n].pcr || announced == 0)
            continue;
        const Clock27 offset = (*packets[n].pcr - slotTime(n, 188, own) % kWrap + kWrap) % kWrap;
        first = first < 0 ? offset : first;
        ASSERT_LE(std::abs(offset - first), 1);
    }
    EXPECT_EQ(announced, 1u);
}

TEST(ConstantRate, StreamWithoutPcrsNeedsARateAndGetsIt) {
    Bytes data;
    for (int64_t i = 0; i < 20'003; ++i)
        append(data, {.pid = 0x44, .number = i}, 188);
    ConstantRate lost(188, InputKind::kFile, {});
    playFile(lost, 188, data);
    EXPECT_FALSE(lost.rate());
    ConstantRate shaper(188, InputKind::kFile, {.rate_bps = 3'000'000});
    expectConstantRate(playFile(shaper, 188, data), data, {.Rate = 3'000'000, .Clocks = 0});
    EXPECT_LT(shaper.status().nullPackets, 7u);
}

// The jitter of a network: what comes within 30 ms comes together.
Clock27 jitter(Clock27 time) {
    return (time / (kSecond * 3 / 100) + 1) * (kSecond * 3 / 100);
}

TEST(ConstantRate, LiveStreamKeepsItsRateThroughJitterDriftAndPauses) {
    for (const double drift : {0.0, 80e-6, -80e-6}) {
        TestStream stream;
        for (size_t i = 0; i < 15'000; ++i)
            stream.Interval(picture(i));
        const uint32_t rate = 1'900'000;
        ConstantRate shaper(188, InputKind::kLive, {.rate_bps = rate});
        const auto late = [&](const TestPacket& packet) {
            const auto drifted = static_cast<double>(packet.due) * (1 + drift);
            return jitter(static_cast<Clock27>(drifted) +
                          (packet.due > kSecond * 590 ? kSecond * 3 : 0));
        };
        const Outcome outcome = playLive(shaper, 188, stream.Data, late);
        const auto packets = parseAll(outcome.Data, 188);
        int64_t next = 0;
        size_t announced = 0;
        std::optional<std::pair<size_t, Clock27>> before;
        for (size_t n = 0; n < packets.size(); ++n) {
            const TestPacket& packet = packets[n];
            if (packet.pid == kNull)
                continue;
            ASSERT_EQ(packet.number, next++);
            // It leaves after it came, within latency and delay.
            const Clock27 left =
                slotTime(n, 188, rate) + (outcome.Times[0] - kEpoch).count() / 1000 * 27;
            ASSERT_LE(late(packet) - left, kSecond / 50) << n;
            ASSERT_LE(left - late(packet), kSecond * 8 / 10) << n;
            if (!packet.pcr)
                continue;
            if (packet.announced)
                ++announced;
            else if (before) {  // 500 ns, at the rate of the source's clock
                const Clock27 bytes = slotTime(n, 188, rate) - slotTime(before->first, 188, rate);
                const Clock27 step = (*packet.pcr - before->second + kWrap) % kWrap;
                const double error = static_cast<double>(step - bytes);
                ASSERT_LE(std::abs(error), 13 + 110e-6 * static_cast<double>(bytes)) << n;
            }
            before = {n, *packet.pcr};
        }
        EXPECT_EQ(next, stream.Number);
        EXPECT_EQ(announced, 1u);
        EXPECT_EQ(shaper.status().rateNeeded_bps, 0u);
    }
}

TEST(Pacer, DatagramsLeaveWithTheirFirstPacketWhateverTheRate) {
    TestStream stream;
    for (size_t i = 0; i < 10'000; ++i) {
        if (i == 5'000)
            stream.Offset = 9 * kSecond;
        stream.Interval(i / 100 % 2 == 0 ? picture(i) : 4);
    }
    ts::Pacer file(188, InputKind::kFile, {});
    const Outcome outcome = playFile(file, 188, stream.Data);
    EXPECT_TRUE(std::equal(stream.Data.begin(), stream.Data.end(), outcome.Data.begin()));
    for (size_t i = 0; i < outcome.Times.size(); ++i) {
        const Clock27 due = parse(&outcome.Data[i * 7 * 188]).due;
        // The interval in front of the splice has no length but that of the one before.
        ASSERT_LE(std::abs((outcome.Times[i] - kEpoch - toTime(due)).count()),
                  due < 5'000 * (kSecond / 25) ? 1000 : 80'000'000);
    }
    ts::Pacer live(188, InputKind::kLive, {});
    const Outcome relayed = playLive(live, 188, stream.Data,
                                     [](const TestPacket& packet) { return jitter(packet.due); });
    EXPECT_TRUE(std::equal(stream.Data.begin(), stream.Data.end(), relayed.Data.begin()));
    for (size_t i = 1000; i < relayed.Times.size(); ++i) {
        const Clock27 due = parse(&relayed.Data[i * 7 * 188]).due;
        ASSERT_NEAR(static_cast<double>((relayed.Times[i] - kEpoch - toTime(due)).count()), 215e6,
                    80e6)
            << i;
    }
}

TEST(FixedRate, IsKeptAndWaitsForWhatComesLate) {
    TestStream stream;
    for (size_t i = 0; i < 100; ++i)
        stream.Interval(40);
    for (const InputKind kind : {InputKind::kFile, InputKind::kLive}) {
        ts::FixedRate shaper(188, kind, {.rate_bps = 2'000'000});
        const Outcome outcome =
            kind == InputKind::kFile
                ? playFile(shaper, 188, stream.Data)
                : playLive(shaper, 188, stream.Data, [](const TestPacket& p) { return p.due / 2; });
        EXPECT_TRUE(std::equal(stream.Data.begin(), stream.Data.end(), outcome.Data.begin()));
        for (size_t i = 0; i < outcome.Times.size(); ++i) {
            const auto time = outcome.Times[i] - outcome.Times[0];
            ASSERT_LE(std::abs((time - toTime(slotTime(7 * i, 188, 2'000'000))).count()), 80);
        }
    }
}

}  // namespace
