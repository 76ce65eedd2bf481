// What a host is told of its channels.
#include "ModuleFixture.h"

namespace {

constexpr uint32_t kChannel = 4, kBlock = 7 * 188, kRate_bps = kBlock * 8 * 100;

class StatisticsTest : public ModuleTest {
  protected:
    // In the order of the structure, without its size.
    void Expect(uint32_t direction, const std::array<uint64_t, 11>& wanted) {
        const auto found = [&]() -> std::array<uint64_t, 11> {
            const auto now = Statistics(direction, kChannel);
            return {now.Started,   now.Cancelled,        now.SocketOpen,  now.BufferedBytes,
                    now.FreeBytes, now.SocketsOpened,    now.ModeChanges, now.Datagrams,
                    now.Bytes,     now.DatagramsDropped, now.SendFailures};
        };
        EXPECT_TRUE(Until([&] { return found() == wanted; }));
        EXPECT_EQ(found(), wanted);
    }
};

TEST_F(StatisticsTest, FollowASendChannel) {
    testclock::Now_us = 1700000000000000;
    Row(kSend, kChannel).Cancel = 0;  // as in a process that joined a table
    Expect(kSend, {0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    ASSERT_EQ(QXV_RTP_SendStart(Handle, kChannel, kRate_bps, 64), 1u);
    const Bytes stream = Stream(7 * 5, 188);
    ASSERT_EQ(QXV_RTP_Send(Handle, kChannel, stream.data(), 5 * kBlock), 1u);
    Expect(kSend, {1, 0, 1, 5 * kBlock, 64 * 256 - 1 - 5 * kBlock, 1, 0, 0, 0, 0, 0});
    EXPECT_TRUE(Until([&] { return Row(kSend, kChannel).Timer.load()->GetBlockSize() != 0; }));
    testclock::Now_us += 10000;
    Expect(kSend, {1, 0, 1, 4 * kBlock, 64 * 256 - 1 - 4 * kBlock, 1, 0, 1, kBlock, 0, 0});
    // The datagram that fails is lost, and another socket opened.
    Fake()->Failures[Kind::Send] = 1;
    testclock::Now_us += 20000;
    Expect(kSend, {1, 0, 1, kBlock, 64 * 256 - 1 - kBlock, 2, 0, 3, 3 * kBlock, 0, 1});
    EXPECT_EQ(QXV_RTP_SendCancel(Handle, kChannel), 1u);
    Expect(kSend, {1, 1, 0, kBlock, 64 * 256 - 1 - kBlock, 2, 0, 3, 3 * kBlock, 0, 1});
    EXPECT_EQ(QXV_RTP_SendEnd(Handle, kChannel), 1u);
    Expect(kSend, {0, 1, 0, 0, 0, 2, 0, 3, 3 * kBlock, 0, 1});
    ASSERT_EQ(QXV_RTP_SendStart(Handle, kChannel, kRate_bps, 16777216), 1u);  // the size wraps to 0
    Expect(kSend, {1, 0, 1, 0, 0, 1, 0, 0, 0, 0, 0});
}

TEST_F(StatisticsTest, FollowAReceiveChannel) {
    SetConfig(kReceive, kChannel, Config("127.0.0.1", "127.0.0.1", 0, 0));
    OpenReceiver(kChannel);
    auto& record = Record(kReceive, kChannel);
    const Bytes raw = Stream(7, 188);
    Bytes rtp{0x80, 33, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, bytes(5000);
    rtp.insert(rtp.end(), raw.begin(), raw.end());
    for (int i = 0; i < 4; ++i)  // the fourth without its header
        EXPECT_TRUE(Fake::Deliver(&record, rtp));
    constexpr uint32_t kRoom = 0x400000 - 1, kStored = 4 * kBlock + 36;
    Expect(kReceive, {1, 0, 1, kStored, kRoom - kStored, 1, 1, 4, kStored, 0, 0});
    EXPECT_EQ(QXV_RTP_Receive(Handle, kChannel, bytes.data(), 5000), 1u);
    Expect(kReceive, {1, 0, 1, kStored - 5000, kRoom - kStored + 5000, 1, 1, 4, kStored, 0, 0});
    // What does not fit is dropped. A new configuration brings a new socket.
    constexpr uint32_t kHeld = 64 * 65000 + kStored - 5000;
    for (int i = 0; i < 65; ++i)
        EXPECT_TRUE(Fake::Deliver(&record, Bytes(65000, 0x22)));
    SetConfig(kReceive, kChannel, Config("127.0.0.1", "127.0.0.1", 0, 0));
    Expect(kReceive, {1, 0, 1, kHeld, kRoom - kHeld, 2, 1, 68, kStored + 64 * 65000, 1, 0});
    // What still waits is gone with the end, and a second start counts from the beginning.
    EXPECT_EQ(QXV_RTP_ReceiveEnd(Handle, kChannel), 1u);
    Expect(kReceive, {0, 1, 0, 0, 0, 2, 1, 68, kStored + 64 * 65000, 1, 0});
    OpenReceiver(kChannel);
    EXPECT_TRUE(Fake::Deliver(&record, raw));
    OpenReceiver(kChannel);
    Expect(kReceive, {1, 0, 1, 0, kRoom, 1, 0, 0, 0, 0, 0});
}

TEST_F(StatisticsTest, GoOnlyWhereThereIsRoomForThem) {
    struct {
        QXV_RTP_Statistics Known{};
        uint8_t Later[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    } larger;
    auto& known = larger.Known;
    const auto get = [&](uint32_t size, uint32_t direction = kSend, uint32_t channel = 0) {
        known.Size = size;
        known.SendFailures = 99;
        return QXV_RTP_GetStatistics(Handle, direction, channel, &known);
    };
    EXPECT_EQ(get(0) + get(63) + get(64, 2) + get(64, kSend, 16), 0u);
    EXPECT_EQ(known.SendFailures, 99u);
    EXPECT_EQ(QXV_RTP_GetStatistics(Handle, kSend, 0, nullptr), 0u);
    EXPECT_EQ(get(sizeof(larger)), 1u);
    EXPECT_TRUE(known.Size == 64 && known.SendFailures == 0 && larger.Later[0] == 1);
    known.Size = 64;
    EXPECT_EQ(QXV_RTP_GetStatistics(nullptr, kSend, 0, &known), 0u);
}

}  // namespace
