// The millisecond clock, pacing, measurement and RTP headers.
#include "ZAQStreamTimer.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "TestClock.h"

namespace {

constexpr uint32_t kBlock = 1316, kRate_bps = 3000000;

class StreamTimer : public testing::Test {
  protected:
    void SetUp() override { SetClock_ms(1700000000000); }
    void TearDown() override { testclock::Now_us = -1; }

    static void SetClock_ms(int64_t now_ms) { testclock::Now_us = now_ms * 1000 + 999; }
    static void Advance_ms(int64_t step_ms) { testclock::Now_us += step_ms * 1000; }
    using Header = std::array<unsigned char, 13>;
    Header NextHeader() {
        Header header;
        header.fill(0xEE);  // the last byte is not the timer's to write
        EXPECT_EQ(Timer.FillRTPHeader(header.data()), 12);
        return header;
    }
    CZAQStreamTimer Timer;
};

TEST_F(StreamTimer, TickExtendsTheMillisecondCount) {
    constexpr uint64_t W = 1ull << 32, kHalf = W / 2;
    static const std::vector<std::pair<uint64_t, uint64_t>> kSequences[] = {
        // clock, tick
        {{W - 6, W - 6}, {5, W + 5}, {kHalf + 99, W + kHalf + 99}, {1, 2 * W + 1}},
        {{7 * W + 100, 100}, {7 * W + 90, 90}, {7 * W + 91, 91}},
        {{kHalf + 10, kHalf + 10}, {10, 10}},     // half a period back
        {{kHalf + 10, kHalf + 10}, {9, W + 9}}};  // more than half: a wrap
    for (const auto& sequence : kSequences) {
        CZAQTickValue tick;
        for (const auto& [clock, expected] : sequence) {
            SetClock_ms(static_cast<int64_t>(clock));
            EXPECT_EQ(tick.GetTickValue(), expected);
        }
    }
}

TEST_F(StreamTimer, BlocksAreDueByTheAbsoluteSchedule) {
    static const struct {
        uint32_t Block, Rate, Lead, Counted;
        int64_t Elapsed_ms;
        uint32_t Due;
    } kCases[] = {{kBlock, kRate_bps, 0, 0, 3, 0},
                  {kBlock, kRate_bps, 0, 0, 4, 1},
                  {kBlock, kRate_bps, 0, 285, 1000, ~0u},
                  {kBlock, kRate_bps, 1000, 284, 0, 0},
                  {kBlock, kRate_bps, 0, 0, 1ll << 32, 1223869860},  // over the wrap
                  {kBlock, 100000000, 0, 0, -1000, 0},               // the clock was set back
                  {0x20000001, 8000, 0, 0, 5, 5}};  // the product of bits is a 32-bit one: 8
    for (const auto& [block, rate, lead, counted, elapsed_ms, due] : kCases) {
        SCOPED_TRACE(due);
        CZAQStreamTimer timer;
        ASSERT_EQ(timer.TxInitialize(block, rate, lead, 0), 1);
        timer.IncreaseBlocksTransfered(counted);
        for (int64_t quarter = 0; quarter < 4; ++quarter) {
            // The clock must be looked at within each half of its period.
            Advance_ms(elapsed_ms * (quarter + 1) / 4 - elapsed_ms * quarter / 4);
            EXPECT_TRUE(timer.GetTxBlocks() == due || quarter < 3);
        }
    }
}

TEST_F(StreamTimer, MeasuresEachIntervalOnItsOwn) {
    const auto measure = [this](uint32_t count, int64_t interval_ms) {
        Timer.IncreaseBlocksTransfered(count);
        Advance_ms(interval_ms);
        return Timer.CalculateBitrate();
    };
    ASSERT_EQ(Timer.RxInitialize(kBlock), 1);
    EXPECT_EQ(Timer.GetDelayMicroSeconds(), 276u);  // of the default rate
    EXPECT_EQ(measure(284, 1000), 2989952u);
    EXPECT_EQ(Timer.GetBitrateActual(), 2989952u);
    EXPECT_EQ(Timer.GetDelayMicroSeconds(), 3521u);
    EXPECT_EQ(measure(5, 0), 2989952u);  // no time has passed: as before
    EXPECT_EQ(measure(0, 500), 5 * kBlock * 8 * 2);
    EXPECT_EQ(measure(1, 3), 3509333u);  // cut off, not rounded
    ASSERT_EQ(Timer.RxInitialize(0xFFFFFFFF), 1);
    EXPECT_EQ(measure(1000, 1000), 4294959296u);  // the low 32 bits
    EXPECT_EQ(measure(1000, -1000), 0u);          // the clock was set back
    ASSERT_EQ(Timer.TxInitialize(kBlock, kRate_bps, 1000, 0), 1);
    EXPECT_EQ(Timer.GetDelayMicroSeconds(), 3509u);
    EXPECT_EQ(measure(284, 0), 2989952u);  // the lead counts as time
    ASSERT_EQ(Timer.TxInitialize(0x80000000, 1), 1);
    EXPECT_EQ(Timer.GetDelayMicroSeconds(), 0x80000000u * 8000000ull);
}

TEST_F(StreamTimer, InitialisersStartAnewOrChangeNothing) {
    for (const bool receive : {false, true}) {
        ASSERT_EQ(Timer.TxInitialize(kBlock, kRate_bps, 0, 7), 1);
        Timer.IncreaseBlocksTransfered(284);
        NextHeader();
        Advance_ms(1000);
        ASSERT_EQ(Timer.CalculateBitrate(), 2989952u);
        EXPECT_EQ(Timer.TxInitialize(kBlock, 0) + Timer.TxInitialize(0, 5) + Timer.RxInitialize(0) +
                      Timer.TxInitialize(0, 5, 10, 9) + Timer.TxInitialize(5, 0, 10, 9),
                  0);
        EXPECT_EQ(Timer.GetBlocks() + Timer.GetTxBlocks() + Timer.GetRTPTimeStamp(), 284u + 89705);
        EXPECT_EQ(NextHeader()[3], 1);
        ASSERT_EQ(receive ? Timer.RxInitialize(kBlock) : Timer.TxInitialize(kBlock, kRate_bps), 1);
        EXPECT_EQ(Timer.GetBlocks() + Timer.GetBitrateActual() + Timer.GetTxBlocks(), 0u);
        Timer.IncreaseBlocksTransfered();
        EXPECT_EQ(Timer.GetBitrate() + Timer.GetRTPTimeStamp(), receive ? 0 : kRate_bps + 315);
        EXPECT_EQ(NextHeader()[3], 0);
        Advance_ms(1000);
        EXPECT_EQ(Timer.CalculateBitrate(), kBlock * 8);
    }
}

TEST_F(StreamTimer, HeaderCarriesSequenceAndBlockTime) {
    ASSERT_EQ(Timer.TxInitialize(kBlock, kRate_bps, 0, 0xFFFFFE00), 1);
    EXPECT_EQ(NextHeader(),
              (Header{0x80, 0x21, 0, 0, 0xFF, 0xFF, 0xFE, 0x00, 0, 0, 0xAA, 0x55, 0xEE}));
    Timer.IncreaseBlocksTransfered(3);  // 947.52 units of time, over the wrap
    for (uint32_t sequence = 1; sequence <= 65537; ++sequence) {
        const unsigned char high = sequence >> 8 & 0xFF, low = sequence & 0xFF;
        ASSERT_EQ(NextHeader(),
                  (Header{0x80, 0x21, high, low, 0, 0, 0x01, 0xB3, 0, 0, 0xAA, 0x55, 0xEE}));
    }
}

TEST_F(StreamTimer, FieldsOfRtpAndRtcpHeaders) {
    static struct {
        unsigned char Packet[8];
        std::array<unsigned int, 9> Rtp;  // version ... timestamp, length
        std::array<unsigned int, 6> Rtcp;
    } cases[] = {{{0x83, 33, 0, 0, 0, 0, 0, 0}, {2, 0, 0, 3, 0, 33, 0, 0, 24}, {2, 0, 3, 33, 0, 4}},
                 {{0x90, 0xA1, 0x12, 0x34, 0x89, 0xAB, 0xCD, 0xEF},
                  {2, 0, 1, 0, 1, 33, 0x1234, 0x89ABCDEF, 12},
                  {2, 0, 16, 0xA1, 0x1234, 0x1234 * 4 + 4}},
                 {{0x6F, 0x7F, 0xFF, 0xFF, 1, 0, 0, 0},
                  {1, 1, 0, 15, 0, 127, 65535, 0x1000000, 72},
                  {1, 1, 15, 127, 65535, 262144}}};
    for (auto& [p, rtp, rtcp] : cases) {
        std::array<unsigned int, 9> r;
        r[8] = Timer.ExtractRTPHeader(p, &r[0], &r[1], &r[2], &r[3], &r[4], &r[5], &r[6], &r[7]);
        EXPECT_EQ(r, rtp);
        std::array<unsigned int, 6> c;
        c[5] = Timer.ExtractRTCPHeader(p, &c[0], &c[1], &c[2], &c[3], &c[4]);
        EXPECT_EQ(c, rtcp);
    }
}

}  // namespace
