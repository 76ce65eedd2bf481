// What becomes of each datagram that arrives.
#include <future>

#include "ModuleFixture.h"

namespace {

constexpr uint32_t kChannel = 3;

class IntakeTest : public ModuleTest {
  protected:
    static RtpChannelContext& Receiver() { return Record(kReceive, kChannel); }
    static CZAQSimpleBuffer& Ring() { return *Row(kReceive, kChannel).Buffer.load(); }
    static CZAQStreamTimer& Timer() { return *Row(kReceive, kChannel).Timer.load(); }
    static uint8_t Mode() { return std::atomic_ref(Receiver().Config.Rtp); }
    static void SetMode(uint8_t mode, uint32_t count) {
        std::atomic_ref(Receiver().Config.Rtp) = mode;
        Receiver().RtpSwitchCount = count;
    }
    // One transport-stream packet behind an RTP header, or alone.
    static Bytes Datagram(bool rtp) {
        Bytes datagram = Stream(1, 188);
        const Bytes header{0x80, 33, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
        datagram.insert(datagram.begin(), header.begin(), header.begin() + (rtp ? 12 : 0));
        return datagram;
    }
    // What the datagram adds to the ring, by way of the host.
    Bytes Stored(const Bytes& datagram, const void* context = &Receiver()) {
        EXPECT_TRUE(fake::Deliver(context, datagram));
        Bytes stored(Ring().GetDataSize());
        const auto size = static_cast<uint32_t>(stored.size());
        EXPECT_EQ(QXV_RTP_Receive(Handle, kChannel, stored.data(), size), 1u);
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
    OpenReceiver(kChannel);
    for (const auto& test : kCases) {
        SCOPED_TRACE(&test - kCases);
        SetMode(test.Rtp, test.Count);
        std::string modes;
        for (const char* kind = test.Datagrams; *kind != '\0'; ++kind) {
            const auto stored = Stored(Datagram(*kind == 'T'));
            modes += static_cast<char>('0' + Mode());
            EXPECT_EQ(stored, Datagram(*kind == 'T' && Mode() != 1));
        }
        EXPECT_EQ(modes, test.Modes);
        EXPECT_EQ(Receiver().RtpSwitchCount, test.CountAfter);
    }
}

TEST_F(IntakeTest, OnlyRtpThatCarriesATransportStreamCounts) {
    static const struct {
        uint8_t First, Second;
        uint32_t Length, Sync;  // position of the sync byte
        bool Rtp;
        uint32_t Offset;  // of the payload, on a channel in RTP mode
    } kCases[] = {{0x80, 33, 200, 12, true, 12}, {0x80, 0xA1, 200, 12, true, 12},
                  {0x83, 33, 200, 24, true, 24}, {0xA0, 33, 200, 12, true, 12},
                  {0x80, 33, 13, 12, true, 12},  {0x8F, 33, 73, 72, true, 72},
                  {0x90, 33, 200, 16, false, 0},  // an extension is not skipped
                  {0x80, 96, 200, 12, false, 0}, {0x40, 33, 200, 12, false, 0},
                  {0xC0, 33, 200, 12, false, 0}, {0x83, 33, 200, 12, false, 0},
                  {0x80, 33, 200, 13, false, 0}, {0x8F, 33, 12, 0, false, 0},
                  {0x8F, 33, 72, 71, false, 72},  // nothing behind the list
                  {0x8F, 33, 71, 70, false, 72},  // a list longer than the datagram
                  {0x8F, 33, 13, 12, false, 72}};
    OpenReceiver(kChannel);
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
        EXPECT_EQ(Receiver().RtpSwitchCount, test.Rtp ? 0u : 1u);
        const uint32_t payload = test.Length - test.Offset;  // may be nearly 2^32
        EXPECT_EQ(Timer().GetBlockSize(), payload != 0 ? payload : 0x5A5A);
        EXPECT_EQ(Timer().GetBlocks(), 1u);
        SetMode(0, 0);
        EXPECT_EQ(Stored(datagram), datagram);  // nothing is cut off in raw mode
    }
    EXPECT_EQ(Stored({}), Bytes{});
}

TEST_F(IntakeTest, WhatDoesNotFitIsDroppedWholeAndCounted) {
    OpenReceiver(kChannel);
    SetMode(0, 0);
    const auto held = [&](uint32_t size) {
        EXPECT_TRUE(fake::Deliver(&Receiver(), Bytes(size, 0x22)));
        return Ring().GetDataSize();
    };
    for (uint32_t i = 1; i <= 64; ++i)
        EXPECT_EQ(held(65000), i * 65000);
    EXPECT_EQ(Timer().GetBlocks(), 64u);
    const uint32_t room = 0x400000 - 1 - 64 * 65000;
    for (uint32_t i = 1; i <= 2; ++i) {
        EXPECT_EQ(held(room + 1), 64u * 65000);
        EXPECT_EQ(Timer().GetBlocks(), i);  // another size began another measurement
    }
    EXPECT_EQ(held(room), 0x3FFFFFu);
}

TEST_F(IntakeTest, GoesByTheRecordsPlaceAndIgnoresWhatIsNoChannel) {
    OpenReceiver(kChannel);
    // Another process writes nonsense into the table: the datagram still finds its own channel.
    Receiver().Channel = 5;
    Receiver().Instance = 9;
    EXPECT_EQ(Stored(Datagram(false)).size(), 188u);
    // A record elsewhere is taken by its numbers, if they name a channel that is started.
    static const uint32_t kCases[][4] = {{0, 1, kChannel, 188},
                                         {1, 1, kChannel, 0},
                                         {0, 2, kChannel, 0},
                                         {0, 1, 16, 0},
                                         {0, 1, 4, 0}};
    RtpChannelContext elsewhere{};
    for (const auto& [instance, direction, channel, size] : kCases) {
        elsewhere.Instance = instance;
        elsewhere.Direction = direction;
        elsewhere.Channel = channel;
        void* const socket = ZAQUDPSocket_Create("", "", 0, 0, 0, 0, 0, 0, &RxProcess, &elsewhere);
        EXPECT_EQ(Stored(Datagram(false), &elsewhere).size(), size);
        ZAQUDPSocket_Destroy(socket);
    }
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
    OpenReceiver(kChannel);
    const std::unique_ptr<CZAQStreamTimer> old(Row(kReceive, kChannel).Timer.exchange(new Slow));
    std::thread callback([&] { EXPECT_TRUE(fake::Deliver(&Receiver(), Datagram(false))); });
    EXPECT_TRUE(Until([] { return inside.load(); }));
    auto end = std::async(std::launch::async, [&] { return QXV_RTP_ReceiveEnd(Handle, kChannel); });
    EXPECT_EQ(end.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    EXPECT_FALSE(freed);
    mayReturn = true;
    callback.join();
    EXPECT_EQ(end.get(), 1u);
    EXPECT_TRUE(freed);
}

}  // namespace
