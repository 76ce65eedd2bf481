// What a send channel puts on the wire, and how it gets and keeps its socket.
#include "ModuleFixture.h"

namespace {

constexpr uint32_t kChannel = 3, kBlock = 7 * 188;
constexpr uint32_t kRate_bps = kBlock * 8 * 100;  // a datagram every 10 ms, 900 units of RTP time

class TransmitTest : public ModuleTest {
  protected:
    static RtpChannelContext& Sender() { return Record(kSend, kChannel); }
    static RtpChannelContextExt& SendRow() { return Row(kSend, kChannel); }
    static bool Ended() { return SendRow().Cancel == 1 && SendRow().Socket == nullptr; }

    // Starts the channel, after what an earlier round has left.
    void Start(uint8_t rtp, uint32_t bitrate_bps = kRate_bps, uint32_t units = 1024,
               int failures = 0) {
        ASSERT_EQ(QXV_RTP_SendEnd(Handle, kChannel), 1u);
        Fake::Reset([] { return Sender().Reopen + 2 * testclock::Retries; });
        Fake()->Failures[Kind::Create] = failures;
        testclock::Now_us = 1700000000000000;
        SetConfig(kSend, kChannel, Config("127.0.0.1", "224.5.6.7", 1, rtp));
        ASSERT_EQ(QXV_RTP_SendStart(Handle, kChannel, bitrate_bps, units), 1u);
    }
    uint32_t Send(const Bytes& bytes) {
        return QXV_RTP_Send(Handle, kChannel, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }
    void SetBitrate(uint32_t bitrate_bps) {
        EXPECT_EQ(QXV_RTP_SetBitrate(Handle, kChannel, bitrate_bps), 1u);
        EXPECT_EQ(Sender().Bitrate, bitrate_bps);
    }
    static std::vector<Bytes> Sent() {
        const Fake fake;
        std::vector<Bytes> sent;
        for (const auto& call : fake->Calls[Kind::Send])
            sent.push_back(call.Data);
        return sent;
    }
    // The thread sleeps 1 ms only when it can do nothing: in the third such sleep from now on, all
    // that it could do was done.
    static std::vector<Bytes> SentAfter_ms(int64_t step_ms) {
        testclock::Now_us += step_ms * 1000;
        const uint64_t before = testclock::Polls;
        EXPECT_TRUE(Until([&] { return Ended() || testclock::Polls >= before + 3; }));
        return Sent();
    }
    // Sends the stream and waits until its packet size is known and its schedule has begun.
    void Feed(const Bytes& stream) {
        ASSERT_EQ(Send(stream), 1u);
        ASSERT_TRUE(Until([&] { return Ended() || SendRow().Timer.load()->GetBlockSize() != 0; }));
        SentAfter_ms(0);
    }
    static Bytes Raw(const Bytes& stream, uint32_t index, uint32_t block = kBlock) {
        return {&stream[index * block], &stream[index * block] + block};
    }
    // Block `index` of the stream behind an RTP header.
    static Bytes Rtp(const Bytes& stream, uint32_t index, uint8_t sequence, uint32_t units,
                     uint32_t block = kBlock) {
        const uint8_t high = units >> 8 & 0xFF, low = units & 0xFF;
        Bytes bytes{0x80, 0x21, 0, sequence, 0, 0, high, low, 0, 0, 0xAA, 0x55};
        bytes.resize(12 + block);
        std::copy_n(&stream[index * block], block, &bytes[12]);
        return bytes;
    }
};

TEST_F(TransmitTest, SevenPacketsWhenTheirTimeHasCome) {
    for (const uint32_t block : {7u * 188, 7u * 204}) {
        for (const uint8_t rtp : {0, 1, 7}) {  // 1 means RTP, nothing else does
            SCOPED_TRACE(block + rtp);
            Start(rtp, block * 8 * 100);
            const Bytes stream = Stream(7 * 5 + 3, block / 7);
            Feed(stream);
            EXPECT_EQ(SentAfter_ms(9).size(), 0u);
            EXPECT_EQ(SentAfter_ms(1).size(), 1u);
            EXPECT_EQ(SentAfter_ms(20).size(), 3u);
            const auto sent = SentAfter_ms(1000);  // far behind, but out of whole datagrams
            ASSERT_EQ(sent.size(), 5u);
            for (uint8_t i = 0; i < 5; ++i)
                EXPECT_EQ(sent[i],
                          rtp == 1 ? Rtp(stream, i, i, i * 900u, block) : Raw(stream, i, block));
            EXPECT_EQ(QXV_RTP_SendEnd(Handle, kChannel), 1u);
            const auto creates = Fake()->Calls[Kind::Create],
                       destroys = Fake()->Calls[Kind::Destroy];
            ASSERT_EQ(creates.size() + destroys.size(), 2u);
            EXPECT_EQ(creates[0].Arguments, "127.0.0.1 224.5.6.7 5000 5000 1 1 0 9");
            EXPECT_TRUE(creates[0].Callback == nullptr && creates[0].Context == nullptr);
            EXPECT_TRUE(creates[0].Thread == destroys[0].Thread &&
                        creates[0].Thread != std::this_thread::get_id());
        }
    }
}

TEST_F(TransmitTest, AStreamLargerThanTheRingPassesWhole) {
    Start(0, 100000000, 9);
    testclock::Now_us = -1;
    const Bytes stream = Stream(7 * 40, 188);
    ASSERT_EQ(Send(stream), 1u);
    ASSERT_TRUE(Until([] { return Sent().size() == 40; }));
    for (uint32_t i = 0; i < 40; ++i)
        EXPECT_EQ(Sent()[i], Raw(stream, i));
}

TEST_F(TransmitTest, PacketSizeComesFromTheFirst2048Bytes) {
    // The sync bytes, and the size of datagrams; 0: the channel cancels itself.
    static const std::pair<std::vector<size_t>, uint32_t> kCases[] = {
        {{0, 188, 376}, 1316},      {{0, 188, 376, 204, 408}, 1316}, {{0, 188, 204, 408}, 1428},
        {{0, 376, 204, 408}, 1428}, {{188, 376, 204, 408}, 0},       {{0, 188, 204}, 0},
        {{0, 376, 408}, 0}};
    for (const auto& [syncs, block] : kCases) {
        SCOPED_TRACE(testing::PrintToString(syncs));
        Start(0);
        Bytes stream(2048, 0);
        for (const size_t sync : syncs)
            stream[sync] = 0x47;
        ASSERT_EQ(Send({stream.begin(), stream.end() - 1}), 1u);
        EXPECT_EQ(SentAfter_ms(0).size() + SendRow().Timer.load()->GetBlockSize(), 0u);
        Feed(Bytes(1, 0));
        const auto sent = SentAfter_ms(20);
        const bool found = block != 0;
        EXPECT_TRUE(found ? sent.at(0) == Raw(stream, 0, block) : sent.empty());
        EXPECT_TRUE(Ended() != found && Sender().Reopen != found && SendRow().Running == 1);
        EXPECT_EQ(Send(stream) + Send({}), found + 1u);
    }
}

TEST_F(TransmitTest, OnlyRtpStopsAtALostSyncByte) {
    for (const bool rtp : {false, true}) {
        Start(rtp);
        Bytes stream = Stream(7 * 4, 188);
        stream[2 * kBlock] = 0;
        Feed(stream);
        EXPECT_EQ(SentAfter_ms(40).size(), rtp ? 2u : 4u);
        EXPECT_TRUE(Ended() == rtp && SendRow().Running == 1);
        EXPECT_EQ(Send(stream), !rtp);
    }
}

TEST_F(TransmitTest, AFailedSendIsLostAndBringsANewSocket) {
    Start(1);
    const Bytes stream = Stream(7 * 5, 188);
    Feed(stream);
    Fake()->Failures[Kind::Send] = 1;
    const auto sent = SentAfter_ms(30);
    ASSERT_EQ(sent.size(), 4u);  // the one that failed does not count
    for (uint8_t i = 0; i < 4; ++i)
        EXPECT_EQ(sent[i], Rtp(stream, i, i, i == 0 ? 0 : (i - 1) * 900u));
    const auto creates = Fake()->Calls[Kind::Create], sends = Fake()->Calls[Kind::Send];
    ASSERT_EQ(creates.size(), 2u);
    EXPECT_TRUE(sends[0].Socket == creates[0].Socket && sends[1].Socket == creates[1].Socket);
    EXPECT_EQ(Fake()->Open.size(), creates[1].Stamp % 2);  // Reopen was set
}

TEST_F(TransmitTest, ASocketThatCannotBeMadeIsTriedAgainEverySecond) {
    Start(0, kRate_bps, 1024, 3);
    Feed(Stream(14, 188));
    const auto creates = Fake()->Calls[Kind::Create];
    ASSERT_EQ(creates.size(), 4u);
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(creates[i].Stamp, creates[0].Stamp + 2 * i);
    EXPECT_EQ(creates[0].Stamp % 2, 1u);  // Reopen stays until there is a socket
    EXPECT_EQ(SentAfter_ms(20).size(), 2u);
    // Addresses without an end never reach the socket library.
    for (auto field : {&RtpChannelConfig::LocalAddress, &RtpChannelConfig::RemoteAddress}) {
        QXV_RTP_SendEnd(Handle, kChannel);
        memset(Sender().Config.*field, '1', QXV_RTP_ADDRESS_SIZE);
        const uint64_t before = testclock::Retries;
        ASSERT_EQ(QXV_RTP_SendStart(Handle, kChannel, kRate_bps, 1024), 1u);
        ASSERT_TRUE(Until([&] { return testclock::Retries > before + 1; }));
        EXPECT_EQ(Fake()->Calls[Kind::Create].size(), 4u);
    }
}

TEST_F(TransmitTest, ANewConfigurationReachesTheRunningStream) {
    Start(0);
    Bytes stream = Stream(7 * 6, 188);
    for (size_t i = 1; i < 6; ++i)
        stream[i * kBlock + 188] = 0;  // would not be recognised a second time
    Feed(stream);
    EXPECT_EQ(SentAfter_ms(10).size(), 1u);
    SetConfig(kSend, kChannel, Config("::1", "::2", 0, 1));
    AwaitSocket(kSend, kChannel);
    Sender().Reopen = 1;  // as another process does
    AwaitSocket(kSend, kChannel);
    EXPECT_EQ(SentAfter_ms(10), (std::vector{Raw(stream, 0), Rtp(stream, 1, 0, 900)}));
    const auto creates = Fake()->Calls[Kind::Create];
    ASSERT_EQ(creates.size(), 3u);
    EXPECT_EQ(creates[2].Arguments, "::1 ::2 5000 5000 0 1 0 9");
    EXPECT_EQ(Fake()->Open.size(), 1u);
    const auto measured = [] { return testclock::Now_us += 1000, Sender().BitrateActual != 0; };
    EXPECT_TRUE(Until(measured));  // by housekeeping
}

TEST_F(TransmitTest, SetBitrateBeforeAndAfterDetection) {
    Start(1, 1);
    SetBitrate(0);
    const Bytes stream = Stream(7 * 20, 188);
    ASSERT_EQ(Send(stream), 1u);
    EXPECT_EQ(SentAfter_ms(100).size(), 0u);  // no pace yet
    SetBitrate(kRate_bps);
    Feed({});
    EXPECT_EQ(SentAfter_ms(29).size(), 2u);
    SetBitrate(0);
    EXPECT_EQ(SentAfter_ms(10).size(), 3u);  // as before
    SetBitrate(2 * kRate_bps);
    EXPECT_EQ(SentAfter_ms(4).size(), 3u);  // the schedule begins anew
    EXPECT_EQ(SentAfter_ms(6).size(), 5u);
    // While a datagram is being sent, which does not count in the new schedule.
    Fake()->Stamp = [] { return QXV_RTP_SetBitrate(g_pContext, kChannel, kRate_bps); };
    EXPECT_EQ(SentAfter_ms(5).size(), 6u);
    EXPECT_EQ(SentAfter_ms(9).size(), 6u);
    const auto sent = SentAfter_ms(1);
    ASSERT_EQ(sent.size(), 7u);
    EXPECT_EQ(sent[3], Rtp(stream, 3, 0, 0));
    EXPECT_EQ(sent[4], Rtp(stream, 4, 1, 450));
    EXPECT_EQ(sent[6], Rtp(stream, 6, 0, 0));
}

}  // namespace
