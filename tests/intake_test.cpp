// What becomes of each datagram that arrives.
#include <future>

#include "ModuleFixture.h"

namespace {

constexpr uint32_t kChannel = 3;

class IntakeTest : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        OpenReceiver(kChannel);
    }
    static RtpChannelContext& Receiver() { return Record(kReceive, kChannel); }
    static CZAQSimpleBuffer& Ring() { return *Row(kReceive, kChannel).Buffer.load(); }
    static CZAQStreamTimer& Timer() { return *Row(kReceive, kChannel).Timer.load(); }
    static uint8_t Mode() { return std::atomic_ref(Receiver().Config.Rtp); }
    static void SetMode(uint8_t mode, uint32_t count) {
        std::atomic_ref(Receiver().Config.Rtp) = mode;
        Receiver().RtpSwitchCount = count;
    }
    // What the datagram adds to the ring, by way of the host.
    Bytes Stored(const Bytes& datagram) {
        EXPECT_TRUE(Fake::Deliver(&Receiver(), datagram));
        Bytes stored(Ring().GetDataSize());
        EXPECT_EQ(QXV_RTP_Receive(Handle, kChannel, stored.data(), Ring().GetDataSize()), 1u);
        return stored;
    }
};

TEST_F(IntakeTest, ModeSwitchesAfterFourOfTheOtherForm) {
    static const struct {
        uint8_t Rtp;
        uint32_t Count;
        const char *Datagrams, *Modes;  // T: RTP, R: raw; the mode after each
        uint32_t CountAfter;
    } kCases[] = {{0, 0, "TTTT", "0001", 4},
                  {1, 0, "RRRR", "1110", 4},
                  {1, 0, "RRRTRRR", "1111111", 3},
                  {0, 0, "TTTTRRRRRR", "0001111111", 10},  // not before one of the mode in force
                  {0, 0, "TTTTTRRRR", "000111110", 4},     // which is the fifth here
                  {0, 0xFFFFFFFF, "TTTTT", "00001", 4},    // the count wraps
                  {7, 0, "TTRR", "7770", 4}};              // neither 0 nor 1
    const Bytes raw = Stream(1, 188);
    Bytes rtp{0x80, 33, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    rtp.insert(rtp.end(), raw.begin(), raw.end());
    for (const auto& test : kCases) {
        SCOPED_TRACE(test.Datagrams);
        SetMode(test.Rtp, test.Count);
        std::string modes;
        for (const char* kind = test.Datagrams; *kind != '\0'; ++kind) {
            const Bytes stored = Stored(*kind == 'T' ? rtp : raw);
            modes += static_cast<char>('0' + Mode());
            EXPECT_EQ(stored, *kind == 'T' && Mode() != 1 ? rtp : raw);
        }
        EXPECT_EQ(modes, test.Modes);
        EXPECT_EQ(Receiver().RtpSwitchCount, test.CountAfter);
    }
}

TEST_F(IntakeTest, OnlyRtpThatCarriesATransportStreamCounts) {
    static const struct {
        uint8_t First, Second;
        uint32_t Length, Sync, Rtp, Offset;  // of the sync byte, and of the payload in RTP mode
    } kCases[] = {
        {0x80, 33, 200, 12, 1, 12}, {0x80, 0xA1, 200, 12, 1, 12}, {0x83, 33, 200, 24, 1, 24},
        {0xA0, 33, 200, 12, 1, 12}, {0x80, 33, 13, 12, 1, 12},    {0x8F, 33, 73, 72, 1, 72},
        {0x90, 33, 200, 16, 0, 0},  // an extension is not skipped
        {0x80, 96, 200, 12, 0, 0},  {0x40, 33, 200, 12, 0, 0},    {0xC0, 33, 200, 12, 0, 0},
        {0x83, 33, 200, 12, 0, 0},  {0x80, 33, 200, 13, 0, 0},    {0x8F, 33, 12, 0, 0, 0},
        {0x8F, 33, 72, 71, 0, 72},  // nothing behind the list
        {0x8F, 33, 71, 70, 0, 72},  // a list longer than the datagram
        {0x8F, 33, 13, 12, 0, 72}};
    for (const auto& test : kCases) {
        SCOPED_TRACE(&test - kCases);
        Bytes datagram(test.Length, 0x11);
        datagram[test.Sync] = 0x47;
        datagram[0] = test.First;
        datagram[1] = test.Second;
        SetMode(1, 0);
        Timer().RxInitialize(0x5A5A);
        const auto begin = datagram.begin() + std::min(test.Offset, test.Length);
        EXPECT_EQ(Stored(datagram), Bytes(begin, datagram.end()));
        EXPECT_EQ(Receiver().RtpSwitchCount, 1 - test.Rtp);
        const uint32_t payload = test.Length - test.Offset;  // may be nearly 2^32
        EXPECT_EQ(Timer().GetBlockSize(), payload != 0 ? payload : 0x5A5A);
        SetMode(0, 0);
        EXPECT_EQ(Stored(datagram), datagram);  // nothing is cut off in raw mode
    }
    EXPECT_EQ(Stored({}), Bytes{});
}

TEST_F(IntakeTest, WhatDoesNotFitIsDroppedWholeAndCounted) {
    SetMode(0, 0);
    const auto held = [](uint32_t size) {
        return Fake::Deliver(&Receiver(), Bytes(size, 0x22)) ? Ring().GetDataSize() : 0;
    };
    for (uint32_t i = 1; i <= 64; ++i)
        EXPECT_TRUE(held(65000) == i * 65000 && Timer().GetBlocks() == i);
    const uint32_t room = 0x400000 - 1 - 64 * 65000;
    for (uint32_t i = 1; i <= 2; ++i)  // another size begins another measurement
        EXPECT_TRUE(held(room + 1) == 64 * 65000 && Timer().GetBlocks() == i);
    EXPECT_EQ(held(room), 0x3FFFFFu);
}

// An end frees the objects only when a callback that works on them has returned.
TEST_F(IntakeTest, AnEndWaitsForTheCallbackBeforeItFrees) {
    static std::atomic<bool> inside, mayReturn, freed;
    inside = mayReturn = freed = false;
    struct Slow : CZAQStreamTimer {
        ~Slow() override { freed = true; }
        uint32_t GetBlockSize() override {
            inside = true;
            return Until([] { return mayReturn.load(); }) ? 188 : 0;
        }
    };
    const std::unique_ptr<CZAQStreamTimer> old(Row(kReceive, kChannel).Timer.exchange(new Slow));
    std::thread callback([&] { EXPECT_TRUE(Fake::Deliver(&Receiver(), Stream(1, 188))); });
    EXPECT_TRUE(Until([] { return inside.load(); }));
    auto end = std::async(std::launch::async, [&] { return QXV_RTP_ReceiveEnd(Handle, kChannel); });
    EXPECT_EQ(end.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    // Now all locks of the channel are held, and its statistics are had all the same.
    QXV_RTP_Statistics now{};
    now.Size = sizeof(now);
    EXPECT_EQ(QXV_RTP_GetStatistics(Handle, kReceive, kChannel, &now), 1u);
    EXPECT_FALSE(freed);
    mayReturn = true;
    callback.join();
    EXPECT_EQ(end.get(), 1u);
    EXPECT_TRUE(freed);
}

}  // namespace
