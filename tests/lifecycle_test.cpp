// Starting, cancelling and ending channels, and what housekeeping does for them.
#include <sys/mman.h>

#include <future>
#include <tuple>

#include "ModuleFixture.h"

namespace {

using namespace std::chrono_literals;

constexpr uint32_t kRate_bps = 8000000, kUnits = 16, kChannel = 2;

class LifecycleTest : public ModuleTest {
  protected:
    uint32_t Start(uint32_t direction, uint32_t channel = kChannel, uint32_t bitrate = kRate_bps,
                   uint32_t units = kUnits) {
        return direction == kSend ? QXV_RTP_SendStart(Handle, channel, bitrate, units)
                                  : QXV_RTP_ReceiveStart(Handle, channel);
    }
    uint32_t End(uint32_t direction, uint32_t channel = kChannel) {
        return (direction == kSend ? QXV_RTP_SendEnd : QXV_RTP_ReceiveEnd)(Handle, channel);
    }
    uint32_t Cancel(uint32_t direction) {
        return (direction == kSend ? QXV_RTP_SendCancel : QXV_RTP_ReceiveCancel)(Handle, kChannel);
    }
    uint32_t Transfer(uint32_t direction, unsigned char* bytes, uint32_t length) {
        return direction == kSend ? QXV_RTP_Send(Handle, kChannel, bytes, length)
                                  : QXV_RTP_Receive(Handle, kChannel, bytes, length);
    }
};

TEST_F(LifecycleTest, WrongArgumentsAreRefused) {
    unsigned char byte = 0x47;
    uint32_t rate = 7;
    auto config = Config("0.0.0.0", "10.0.0.1", 0);
    const auto accepted = [&](void* h, uint32_t c) {
        return QXV_RTP_GetBitrate(h, c, &rate) + QXV_RTP_GetConfig(h, kReceive, c, &config) +
               QXV_RTP_SetConfig(h, kSend, c, &config) +
               QXV_RTP_SendStart(h, c, kRate_bps, kUnits) + QXV_RTP_Send(h, c, &byte, 0) +
               QXV_RTP_SetBitrate(h, c, 5) + QXV_RTP_SendCancel(h, c) + QXV_RTP_SendEnd(h, c) +
               QXV_RTP_ReceiveStart(h, c) + QXV_RTP_Receive(h, c, &byte, 0) +
               QXV_RTP_ReceiveCancel(h, c) + QXV_RTP_ReceiveEnd(h, c) +
               QXV_RTP_Cancel(c == 0 ? h : nullptr);
    };
    EXPECT_EQ(accepted(Handle, 0), 13u);
    const std::string before(static_cast<char*>(Handle), sizeof(RtpContext));
    EXPECT_EQ(accepted(nullptr, 0) + accepted(Handle, 16) + accepted(Handle, ~0u), 0u);
    g_pContext->Instance = 1;  // another process has overwritten it
    EXPECT_EQ(accepted(Handle, 0), 13u);
    g_pContext->Instance = 0;
    EXPECT_EQ(memcmp(before.data(), Handle, before.size()), 0);
    EXPECT_EQ(
        QXV_RTP_SendStart(Handle, 1, 0, 1) + QXV_RTP_SendStart(Handle, 1, 1, 0) +
            QXV_RTP_GetBitrate(Handle, 1, nullptr) + QXV_RTP_SetBitrate(Handle, 1, 5) +
            QXV_RTP_GetConfig(Handle, 2, 0, &config) + QXV_RTP_GetConfig(Handle, 0, 0, nullptr) +
            QXV_RTP_SetConfig(Handle, 2, 0, &config) + QXV_RTP_SetConfig(Handle, 0, 0, nullptr),
        0u);
    // What needs no correction may be memory that cannot be written.
    ASSERT_EQ(QXV_RTP_GetConfig(Handle, kReceive, 0, &config), 1u);
    void* const page = mmap(nullptr, 4096, PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    memcpy(page, &config, sizeof(config));
    mprotect(page, 4096, PROT_READ);
    EXPECT_EQ(QXV_RTP_SetConfig(Handle, kReceive, 0, static_cast<RtpChannelConfig*>(page)), 1u);
    munmap(page, 4096);
    for (const uint32_t direction : {kSend, kReceive}) {
        Row(direction, kChannel).Cancel = 0;  // not started, as in a process that joined a table
        EXPECT_EQ(Transfer(direction, &byte, 1), 0u);
        EXPECT_EQ(Start(direction) + Transfer(direction, nullptr, 1), 1u);
        EXPECT_EQ(Cancel(direction) + Transfer(direction, nullptr, 0), 2u);
    }
}

TEST_F(LifecycleTest, StartAndEndSetEveryField) {
    // Direction, channel, units, bitrate, size
    static const std::array<uint32_t, 5> kCases[] = {{kSend, 0, 9, 5, 2304},
                                                     {kSend, 15, 16384, kRate_bps, 4194304},
                                                     {kSend, 1, 16777216, 1, 0},  // the size wraps
                                                     {kReceive, 15, 0, 0, 4194304}};
    for (const auto& [direction, channel, units, bitrate, size] : kCases) {
        SCOPED_TRACE(testing::Message() << direction << ' ' << channel);
        auto& record = Record(direction, channel);
        auto& row = Row(direction, channel);
        const auto expectStatus = [&](uint32_t requested, uint32_t bytes) {
            EXPECT_TRUE(record.Bitrate == requested && record.BitrateActual == 0 &&
                        record.BufferSize == bytes && record.Reopen == 1);
            record.BitrateActual = 99;
        };
        for (int start = 0; start < 2; ++start) {  // a second one replaces what the first made
            Fake()->HoldCreates = true;
            record.Reopen = 0;
            ASSERT_EQ(Start(direction, channel, bitrate, units), 1u);
            expectStatus(bitrate, size);
            auto& ring = *row.Buffer.load();
            EXPECT_TRUE(ring.GetBufferSize() == size && ring.GetDataSize() == 0);
            EXPECT_TRUE(row.Running == 1 && row.Cancel == 0 && row.Timer != nullptr &&
                        (row.Thread != nullptr) == (direction == kSend));
            Fake()->HoldCreates = false;
            AwaitSocket(direction, channel);
            EXPECT_EQ(Fake()->Open.size(), 1u);
            unsigned char byte = 0;
            ring.Write(&byte, 1);
        }
        for (int end = 0; end < 2; ++end) {
            EXPECT_EQ(End(direction, channel), 1u);
            EXPECT_TRUE(IsEmpty(row) && Fake()->Open.empty());
            expectStatus(0, 0);
        }
    }
}

// Also where a start follows at once: the transfer looks for a cancel once a millisecond only.
TEST_F(LifecycleTest, AWaitingTransferEndsWithEveryKindOfCancel) {
    enum { kAll, kOne, kEnd };
    testclock::Now_us = 1700000000000000;  // nothing is ever due
    Bytes bytes(2 * kUnits * 256, 0x47);
    for (uint32_t i = 0; i < 12; ++i) {
        const uint32_t direction = i / 6 == 0 ? kSend : kReceive, kind = i % 3;
        const bool restart = i / 3 % 2 == 1;
        SCOPED_TRACE(testing::Message() << direction << ' ' << kind << ' ' << restart);
        Row(direction, 15).Cancel = 0;
        ASSERT_EQ(Start(direction), 1u);
        auto& row = Row(direction, kChannel);
        const uint64_t polls = testclock::Polls;
        auto transfer = std::async(std::launch::async, [&] {
            return Transfer(direction, bytes.data(), 2 * kUnits * 256);
        });
        const uint32_t written = direction == kSend ? kUnits * 256 - 1 : 0;
        EXPECT_TRUE(Until([&] {
            return testclock::Polls > polls + 20 && row.Buffer.load()->GetDataSize() == written;
        }));
        EXPECT_EQ(transfer.wait_for(0s), std::future_status::timeout);
        EXPECT_EQ(kind == kAll   ? QXV_RTP_Cancel(Handle)
                  : kind == kOne ? Cancel(direction)
                                 : End(direction),
                  1u);
        if (restart) {
            EXPECT_EQ(Start(direction), 1u);
            EXPECT_EQ(transfer.wait_for(10s), std::future_status::ready);
            EXPECT_EQ(Cancel(direction), 1u);
        }
        EXPECT_EQ(transfer.get() + Transfer(direction, bytes.data(), 1), 0u);
        EXPECT_TRUE(row.Cancel == 1 && row.Running == 0);
        EXPECT_EQ(Row(direction, 15).Cancel, kind == kAll);
        // The objects, and what was written, stay until the end.
        EXPECT_TRUE(restart || (kind == kEnd ? row.Buffer == nullptr
                                             : row.Buffer.load()->GetDataSize() == written));
        EXPECT_EQ(End(direction), 1u);
    }
}

// It goes on with the ring that the start has made, and is neither cancelled nor told an end.
TEST_F(LifecycleTest, ASecondStartKeepsAWaitingTransfer) {
    testclock::Now_us = 1700000000000000;  // nothing is ever due
    Bytes bytes(3 * kUnits * 256, 0x47);
    const auto size = static_cast<uint32_t>(bytes.size());
    for (const uint32_t direction : {kSend, kReceive}) {
        ASSERT_EQ(Start(direction), 1u);
        auto transfer = std::async(std::launch::async, [&] {
            return Transfer(direction, bytes.data(), direction == kSend ? size : 10);
        });
        const auto& row = Row(direction, kChannel);
        for (int start = 0; start < 300; ++start) {
            const uint64_t polls = testclock::Polls;
            ASSERT_EQ(Start(direction), 1u);
            EXPECT_EQ(row.Running, 1u);
            EXPECT_TRUE(start % 3 != 0 || Until([&] { return testclock::Polls > polls + 5; }));
            if (direction == kSend && transfer.wait_for(0s) == std::future_status::ready)
                break;  // each ring has taken its share
            EXPECT_TRUE(direction == kSend || transfer.wait_for(0s) == std::future_status::timeout);
        }
        if (direction == kReceive) {
            AwaitSocket(kReceive, kChannel);
            EXPECT_TRUE(Fake::Deliver(&Record(kReceive, kChannel), Stream(1, 188)));
        }
        EXPECT_EQ(transfer.get(), 1u);
        EXPECT_EQ(End(direction), 1u);
    }
}

// The cancel comes while the start frees what an earlier one has made.
TEST_F(LifecycleTest, ACancelInTheMidstOfAStartCounts) {
    struct Cancelling : CZAQStreamTimer {
        explicit Cancelling(std::function<uint32_t()> cancel) : OnDelete(std::move(cancel)) {}
        ~Cancelling() override { EXPECT_EQ(OnDelete(), 1u); }
        const std::function<uint32_t()> OnDelete;
    };
    for (const uint32_t direction : {kSend, kReceive}) {
        ASSERT_EQ(Start(direction), 1u);
        auto& row = Row(direction, kChannel);
        const std::unique_ptr<CZAQStreamTimer> old(
            row.Timer.exchange(new Cancelling([this, direction] { return Cancel(direction); })));
        EXPECT_EQ(Start(direction), 1u);
        EXPECT_TRUE(row.Cancel == 1 && row.Running == 0);
    }
}

// Otherwise the socket would belong to a channel that has ended. Statistics wait for neither.
TEST_F(LifecycleTest, AnEndWaitsForTheSocketThatIsBeingMade) {
    Fake()->HoldCreates = true;
    ASSERT_EQ(Start(kReceive), 1u);
    ASSERT_TRUE(Until([] { return Fake()->Waiting != 0; }));
    auto end = std::async(std::launch::async, [&] { return End(kReceive); });
    EXPECT_TRUE(Until([&] { return Statistics(kReceive, kChannel).Cancelled == 1; }));
    EXPECT_EQ(end.wait_for(50ms), std::future_status::timeout);
    const auto now = Statistics(kReceive, kChannel);
    EXPECT_TRUE(now.Started == 1 && now.Cancelled == 1 && now.SocketOpen == 0);
    Fake()->HoldCreates = false;
    EXPECT_EQ(end.get(), 1u);
    EXPECT_TRUE(IsEmpty(Row(kReceive, kChannel)) && Fake()->Open.empty());
}

// An end frees the objects only when a callback that works on them has returned.
TEST_F(LifecycleTest, AnEndWaitsForTheCallbackBeforeItFrees) {
    OpenReceiver(kChannel);
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
    std::thread callback(
        [&] { EXPECT_TRUE(Fake::Deliver(&Record(kReceive, kChannel), Stream(1, 188))); });
    EXPECT_TRUE(Until([] { return inside.load(); }));
    auto end = std::async(std::launch::async, [&] { return End(kReceive); });
    EXPECT_EQ(end.wait_for(50ms), std::future_status::timeout);
    // Now all locks of the channel are held, and its statistics are had all the same.
    Statistics(kReceive, kChannel);
    EXPECT_FALSE(freed);
    mayReturn = true;
    callback.join();
    EXPECT_EQ(end.get(), 1u);
    EXPECT_TRUE(freed);
}

TEST_F(LifecycleTest, CompletionIsTestedBeforeCancel) {
    struct Cancelling : CZAQSimpleBuffer {
        explicit Cancelling(RtpChannelContextExt& row) : CZAQSimpleBuffer(101), OwnRow(row) {}
        uint32_t GetDataSize() override {  // both directions ask for it before they transfer
            OwnRow.Cancel = 1;
            return CZAQSimpleBuffer::GetDataSize();
        }
        RtpChannelContextExt& OwnRow;
    };
    Bytes bytes(101);
    for (const uint32_t direction : {kSend, kReceive}) {
        for (const uint32_t length : {100, 101}) {
            Fake()->HoldCreates = true;  // keeps the transmit thread away from its ring
            ASSERT_EQ(Start(direction), 1u);
            EXPECT_TRUE(direction == kReceive || Until([] { return Fake()->Waiting != 0; }));
            auto& row = Row(direction, kChannel);
            auto* const ring = new Cancelling(row);
            ring->Write(bytes.data(), direction == kReceive ? 100 : 0);
            row.Cancel = 0;
            const std::unique_ptr<CZAQSimpleBuffer> old(row.Buffer.exchange(ring));
            EXPECT_EQ(Transfer(direction, bytes.data(), length), length == 100);
            EXPECT_EQ(ring->GetDataSize(), direction == kSend ? 100u : 0u);
            Fake()->HoldCreates = false;
            End(direction);
        }
    }
}

TEST_F(LifecycleTest, ReceiveJoinsPiecesAndCancelKeepsTheIntake) {
    testclock::Now_us = 1700000000000000;
    auto& record = Record(kReceive, kChannel);
    auto& row = Row(kReceive, kChannel);
    const Bytes stream = Stream(1, 188);
    Bytes bytes(10);
    auto config = Config("0.0.0.0", "10.0.0.1", 0, 0);
    SetConfig(kReceive, kChannel, config);
    OpenReceiver(kChannel);
    EXPECT_TRUE(Fake::Deliver(&record, {stream.begin(), stream.begin() + 4}));
    auto receive =
        std::async(std::launch::async, [&] { return Transfer(kReceive, &bytes[0], 10); });
    EXPECT_TRUE(Until([&] { return row.Buffer.load()->GetDataSize() == 0; }));
    EXPECT_TRUE(Fake::Deliver(&record, {stream.begin() + 4, stream.begin() + 12}));
    EXPECT_EQ(receive.get(), 1u);
    EXPECT_EQ(bytes, Bytes(stream.begin(), stream.begin() + 10));
    // Housekeeping measures: one datagram of eight bytes, the size that came last.
    testclock::Now_us += 1000;
    uint32_t rate = 0;
    EXPECT_TRUE(
        Until([&] { return QXV_RTP_GetBitrate(Handle, kChannel, &rate) && rate == 64000; }));
    // A cancelled channel takes in what arrives, but is not read, measured or given a new socket.
    EXPECT_EQ(Cancel(kReceive), 1u);
    EXPECT_TRUE(Fake::Deliver(&record, stream));
    EXPECT_EQ(Transfer(kReceive, bytes.data(), 1), 0u);
    EXPECT_EQ(row.Buffer.load()->GetDataSize(), stream.size() + 2);
    SetConfig(kReceive, kChannel, config);
    record.BitrateActual = 99;
    const uint64_t ticks = testclock::Ticks;
    EXPECT_TRUE(Until([&] { return testclock::Ticks > ticks + 11; }));
    EXPECT_EQ(Fake()->Calls[Kind::Create].size(), 1u);
    EXPECT_EQ(record.BitrateActual, 99u);
}

TEST_F(LifecycleTest, HousekeepingOpensAndReplacesReceiveSockets) {
    QXV_RTP_Deconstructor();
    const uint64_t loaded = 1 + 2 * testclock::Ticks;
    ASSERT_EQ(QXV_RTP_Constructor(), 1);  // with a pass at once
    auto& record = Record(kReceive, kChannel);
    Fake::Reset([&] { return record.Reopen + 2 * testclock::Ticks; });
    Fake()->Failures[Kind::Create] = 2;
    auto config = Config("127.0.0.1", "224.5.6.7", 1);
    config.MulticastOption = 1;
    Handle = g_pContext;
    SetConfig(kReceive, kChannel, config);
    OpenReceiver(kChannel);
    const uint64_t ticks = testclock::Ticks;
    ASSERT_TRUE(Until([&] { return testclock::Ticks > ticks + 11; }));  // left alone
    SetConfig(kReceive, kChannel, Config("::1", "::2", 0));
    AwaitSocket(kReceive, kChannel);
    const auto creates = Fake()->Calls[Kind::Create], destroys = Fake()->Calls[Kind::Destroy];
    ASSERT_EQ(creates.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        const uint64_t since = creates[i].Stamp - creates[0].Stamp;
        EXPECT_TRUE(i > 2 || since == 20 * i);            // with the next pass,
        EXPECT_EQ((creates[i].Stamp - loaded) % 20, 0u);  // every tenth tick; and Reopen stays
        EXPECT_EQ(creates[i].Arguments, i < 3 ? "127.0.0.1 224.5.6.7 5000 5000 1 0 1 9"
                                              : "::1 0:0:0:0:0:0:0:0 5000 5000 0 0 0 9");
        EXPECT_TRUE(creates[i].Callback == &RxProcess && creates[i].Context == &record);
    }
    ASSERT_EQ(destroys.size(), 1u);
    EXPECT_EQ(destroys[0].Socket, creates[2].Socket);
}

// A socket is being made from the old configuration when a new one is stored.
TEST_F(LifecycleTest, AConfigurationStoredMeanwhileIsNotLost) {
    static const std::pair<size_t, const char*> kCases[] = {
        // The byte in which they differ
        {offsetof(RtpChannelConfig, LocalAddress) + 8, "127.0.0.0 224.5.6.7 5000 5000 1 0 0 9"},
        {offsetof(RtpChannelConfig, RemoteAddress) + 8, "127.0.0.1 224.5.6.6 5000 5000 1 0 0 9"},
        {offsetof(RtpChannelConfig, Port), "127.0.0.1 224.5.6.7 5001 5001 1 0 0 9"},
        {offsetof(RtpChannelConfig, MulticastOption), "127.0.0.1 224.5.6.7 5000 5000 1 0 1 9"},
        {offsetof(RtpChannelConfig, Ttl), "127.0.0.1 224.5.6.7 5000 5000 1 0 0 8"}};
    for (const auto& [position, arguments] : kCases) {
        SCOPED_TRACE(arguments);
        Fake::Reset();
        auto config = Config("127.0.0.1", "224.5.6.7", 1);
        SetConfig(kReceive, kChannel, config);
        Fake()->HoldCreates = true;
        ASSERT_EQ(Start(kReceive), 1u);
        ASSERT_TRUE(Until([] { return Fake()->Waiting != 0; }));
        reinterpret_cast<uint8_t*>(&config)[position] ^= 1;
        SetConfig(kReceive, kChannel, config);
        Fake()->HoldCreates = false;
        EXPECT_TRUE(Until([] { return Fake()->Calls[Kind::Create].size() == 2; }));
        AwaitSocket(kReceive, kChannel);
        EXPECT_EQ(Fake()->Calls[Kind::Create].back().Arguments, arguments);
        EXPECT_EQ(End(kReceive), 1u);
    }
}

// The schedule follows the wall clock. A step forward makes due what lies between, a step back
// everything, until the bitrate is set anew. The measured bitrate is wrong once.
TEST_F(LifecycleTest, AStepOfTheClockLastsUntilTheBitrateIsSet) {
    constexpr int64_t kDay_ms = 86400000, kNow_ms = 1700000000000, kWrap_ms = kNow_ms >> 32 << 32;
    constexpr uint32_t kBlock = 7 * 188, kHundred_bps = kBlock * 8 * 100;
    static const std::tuple<int64_t, int64_t, size_t, uint32_t> kCases[] = {
        // When, step, datagrams sent of 300, rate measured over it
        {kNow_ms, 1000, 102, 10528},        {kNow_ms, kDay_ms / 24, 300, 2},
        {kNow_ms, kDay_ms, 300, 0},         {kNow_ms, -1000, 300, 0},
        {kNow_ms, -kDay_ms / 24, 300, 0},   {kNow_ms, -kDay_ms, 300, 0},
        {kWrap_ms - 500, 1000, 102, 10528}, {kWrap_ms, -1000, 300, 0}};  // 2^32 ms
    const auto sent = [&] {
        const uint64_t polls = testclock::Polls;
        EXPECT_TRUE(Until([&] { return testclock::Polls >= polls + 3; }));
        return Fake()->Calls[Kind::Send].size();
    };
    Bytes stream = Stream(7 * 300, 188);
    for (const auto& [when_ms, step_ms, left, measured] : kCases) {
        SCOPED_TRACE(testing::Message() << when_ms << ' ' << step_ms);
        testclock::Now_us = when_ms * 1000;
        Fake::Reset();
        OpenReceiver(kChannel);
        ASSERT_EQ(Start(kSend, kChannel, kHundred_bps, 4096), 1u);
        ASSERT_EQ(Transfer(kSend, stream.data(), 300 * kBlock), 1u);
        EXPECT_TRUE(Until([&] { return Row(kSend, kChannel).Timer.load()->GetBlockSize() != 0; }));
        testclock::Now_us += 20000;
        EXPECT_TRUE(Until([&] { return sent() == 2; }));
        EXPECT_TRUE(Fake::Deliver(&Record(kReceive, kChannel), {&stream[0], &stream[kBlock]}));
        Record(kReceive, kChannel).BitrateActual = 99;
        testclock::Now_us += step_ms * 1000;
        EXPECT_TRUE(Until(
            [&, rate = measured] { return Record(kReceive, kChannel).BitrateActual == rate; }));
        EXPECT_EQ(sent(), left);
        EXPECT_EQ(QXV_RTP_SetBitrate(Handle, kChannel, kHundred_bps), 1u);
        EXPECT_EQ(Transfer(kSend, stream.data(), 10 * kBlock), 1u);
        EXPECT_EQ(sent(), left);
        testclock::Now_us += 50000;
        EXPECT_EQ(sent(), left + 5);
        EXPECT_EQ(End(kSend) + End(kReceive), 2u);
    }
}

}  // namespace
