// Starting, cancelling and ending channels, and what housekeeping does for them.
#include <future>

#include "ModuleFixture.h"

namespace {

using Status = std::array<uint32_t, 4>;
using namespace std::chrono_literals;

constexpr uint32_t kRate_bps = 8000000, kUnits = 16, kChannel = 2;

class LifecycleTest : public ModuleTest {
  protected:
    uint32_t Start(uint32_t direction) {
        return direction == kSend ? QXV_RTP_SendStart(Handle, kChannel, kRate_bps, kUnits)
                                  : QXV_RTP_ReceiveStart(Handle, kChannel);
    }
    uint32_t End(uint32_t direction, uint32_t channel = kChannel) {
        return (direction == kSend ? QXV_RTP_SendEnd : QXV_RTP_ReceiveEnd)(Handle, channel);
    }
    uint32_t Cancel(uint32_t direction) {
        return (direction == kSend ? QXV_RTP_SendCancel : QXV_RTP_ReceiveCancel)(Handle, kChannel);
    }
    uint32_t Transfer(uint32_t direction, unsigned char* bytes, size_t length) {
        const auto count = static_cast<uint32_t>(length);
        return direction == kSend ? QXV_RTP_Send(Handle, kChannel, bytes, count)
                                  : QXV_RTP_Receive(Handle, kChannel, bytes, count);
    }
    // Requested rate, measured rate, buffer size, Reopen.
    static Status StatusOf(const RtpChannelContext& record) {
        return {record.Bitrate, record.BitrateActual, record.BufferSize, record.Reopen};
    }
    static bool IsEmpty(const RtpChannelContextExt& row) {
        return row.Running == 0 && row.Cancel == 1 && row.Socket == nullptr &&
               row.Thread == nullptr && row.Timer == nullptr && row.Buffer == nullptr;
    }
};

TEST_F(LifecycleTest, WrongArgumentsAreRefused) {
    unsigned char byte = 0x47;
    uint32_t rate = 7;
    const std::function<uint32_t(void*, uint32_t)> kCalls[] = {
        [&](void* h, uint32_t c) { return QXV_RTP_SendStart(h, c, kRate_bps, kUnits); },
        [&](void* h, uint32_t c) { return QXV_RTP_Send(h, c, &byte, 0); },
        [&](void* h, uint32_t c) { return QXV_RTP_SetBitrate(h, c, 5); },
        QXV_RTP_SendCancel,
        QXV_RTP_SendEnd,
        QXV_RTP_ReceiveStart,
        [&](void* h, uint32_t c) { return QXV_RTP_Receive(h, c, &byte, 0); },
        QXV_RTP_ReceiveCancel,
        QXV_RTP_ReceiveEnd,
        [&](void* h, uint32_t c) { return QXV_RTP_Cancel(c == 0 ? h : nullptr); },
        [&](void* h, uint32_t c) { return QXV_RTP_GetBitrate(h, c, &rate); },
    };
    const std::string before(static_cast<char*>(Handle), sizeof(RtpContext));
    for (const auto& call : kCalls) {
        SCOPED_TRACE(&call - kCalls);
        EXPECT_EQ(call(nullptr, 0) + call(Handle, 16) + call(Handle, ~0u), 0u);
        g_pContext->Instance = 1;  // there are no rows for it, but a record
        EXPECT_EQ(call(Handle, 0), &call == std::end(kCalls) - 1);
        g_pContext->Instance = 0;
        EXPECT_EQ(memcmp(before.data(), Handle, before.size()), 0);
        QXV_RTP_SendStart(Handle, 0, kRate_bps, kUnits);
        EXPECT_EQ(call(Handle, 0), 1u);
        End(kSend, 0);
        End(kReceive, 0);
    }
    EXPECT_EQ(QXV_RTP_SendStart(Handle, 1, 0, 1) + QXV_RTP_SendStart(Handle, 1, 1, 0) +
                  QXV_RTP_GetBitrate(Handle, 1, nullptr) + QXV_RTP_SetBitrate(Handle, 1, 5),
              0u);
    for (const uint32_t direction : {kSend, kReceive}) {
        Row(direction, kChannel).Cancel = 0;  // not started, as in a process that joined a table
        EXPECT_EQ(Transfer(direction, &byte, 1), 0u);
        EXPECT_EQ(Start(direction) + Transfer(direction, nullptr, 1), 1u);
        EXPECT_EQ(Cancel(direction) + Transfer(direction, nullptr, 0), 2u);
    }
}

TEST_F(LifecycleTest, StartAndEndSetEveryField) {
    static const struct {
        uint32_t Direction, Channel, Units, Bitrate, Size;
    } kCases[] = {{kSend, 0, 9, 5, 2304},
                  {kSend, 15, 16384, kRate_bps, 4194304},
                  {kSend, 1, 16777216, 1, 0},  // the size wraps
                  {kReceive, 15, 0, 0, 4194304}};
    for (const auto& test : kCases) {
        SCOPED_TRACE(&test - kCases);
        auto& record = Record(test.Direction, test.Channel);
        auto& row = Row(test.Direction, test.Channel);
        const bool send = test.Direction == kSend;
        for (int start = 0; start < 2; ++start) {  // a second one replaces what the first made
            fake::Hold(Kind::Create);
            record.BitrateActual = 99;
            record.Reopen = 0;
            ASSERT_EQ(send ? QXV_RTP_SendStart(Handle, test.Channel, test.Bitrate, test.Units)
                           : QXV_RTP_ReceiveStart(Handle, test.Channel),
                      1u);
            EXPECT_EQ(StatusOf(record), (Status{test.Bitrate, 0, test.Size, 1}));
            EXPECT_EQ(row.Buffer.load()->GetBufferSize(), test.Size);
            EXPECT_EQ(row.Buffer.load()->GetDataSize(), 0u);
            EXPECT_TRUE(row.Running == 1 && row.Cancel == 0 && row.Timer != nullptr);
            EXPECT_EQ(row.Thread != nullptr, send);
            fake::Release();
            ASSERT_TRUE(Until([&] { return record.Reopen == 0; }));
            EXPECT_EQ(fake::OpenSockets(), 1u);
            unsigned char byte = 0;
            row.Buffer.load()->Write(&byte, 1);
        }
        record.BitrateActual = 99;
        for (int end = 0; end < 2; ++end) {
            EXPECT_EQ(End(test.Direction, test.Channel), 1u);
            EXPECT_TRUE(IsEmpty(row));
            EXPECT_EQ(StatusOf(record), (Status{0, 0, 0, 1}));
            EXPECT_EQ(fake::OpenSockets(), 0u);
        }
    }
}

TEST_F(LifecycleTest, AWaitingTransferEndsWithEveryKindOfCancel) {
    enum { kAll, kOne, kEnd };
    testclock::Now_us = 1700000000000000;  // nothing is ever due
    for (const uint32_t direction : {kSend, kReceive}) {
        for (const int kind : {kAll, kOne, kEnd}) {
            SCOPED_TRACE(direction * 10 + static_cast<uint32_t>(kind));
            ASSERT_EQ(Start(direction), 1u);
            auto& row = Row(direction, kChannel);
            Bytes bytes(2 * kUnits * 256, 0x47);
            const uint64_t polls = testclock::Polls;
            auto transfer = std::async(std::launch::async, [&] {
                return Transfer(direction, bytes.data(), bytes.size());
            });
            EXPECT_TRUE(Until([&] {
                return testclock::Polls > polls + 20 &&
                       (direction == kReceive || row.Buffer.load()->GetFreeSize() == 0);
            }));
            EXPECT_EQ(transfer.wait_for(0s), std::future_status::timeout);
            EXPECT_EQ(kind == kAll   ? QXV_RTP_Cancel(Handle)
                      : kind == kOne ? Cancel(direction)
                                     : End(direction),
                      1u);
            EXPECT_EQ(transfer.get(), 0u);
            EXPECT_TRUE(row.Cancel == 1 && row.Running == 0);
            EXPECT_EQ(Transfer(direction, bytes.data(), 1), 0u);
            // The objects, and what was written, stay until the end.
            EXPECT_EQ(row.Buffer == nullptr, kind == kEnd);
            EXPECT_TRUE(kind == kEnd || row.Buffer.load()->GetDataSize() ==
                                            (direction == kSend ? kUnits * 256 - 1 : 0));
            for (const uint32_t other : {0, 15})
                EXPECT_TRUE(Row(direction, other).Cancel == 1 || kind != kAll);
            EXPECT_EQ(End(direction), 1u);
            Row(direction, 0).Cancel = Row(direction, 15).Cancel = 0;
        }
    }
}

TEST_F(LifecycleTest, CompletionIsTestedBeforeCancel) {
    struct Cancelling : CZAQSimpleBuffer {
        using CZAQSimpleBuffer::CZAQSimpleBuffer;
        uint32_t GetDataSize() override {  // both directions ask for it before they transfer
            *Cancel = 1;
            return CZAQSimpleBuffer::GetDataSize();
        }
        std::atomic<uint32_t>* Cancel = nullptr;
    };
    for (const uint32_t direction : {kSend, kReceive}) {
        for (const uint32_t length : {100, 101}) {
            fake::Hold(Kind::Create);  // keeps the transmit thread away from its ring
            ASSERT_EQ(Start(direction), 1u);
            EXPECT_TRUE(direction == kReceive || Until([] { return fake::IsHeld(); }));
            auto& row = Row(direction, kChannel);
            auto* const ring = new Cancelling(101);
            ring->Cancel = &row.Cancel;
            Bytes bytes(length);
            if (direction == kReceive)
                ring->Write(bytes.data(), 100);
            row.Cancel = 0;
            const std::unique_ptr<CZAQSimpleBuffer> old(row.Buffer.exchange(ring));
            EXPECT_EQ(Transfer(direction, bytes.data(), length), length == 100);
            EXPECT_EQ(ring->GetDataSize(), direction == kSend ? 100u : 0u);
            fake::Release();
            End(direction);
        }
    }
}

TEST_F(LifecycleTest, ReceiveJoinsPiecesAndCancelKeepsTheIntake) {
    auto& record = Record(kReceive, kChannel);
    auto& row = Row(kReceive, kChannel);
    Bytes stream = Stream(1, 188), bytes(10);
    auto config = Config("0.0.0.0", "10.0.0.1", 0, 0);
    ASSERT_EQ(QXV_RTP_SetConfig(Handle, kReceive, kChannel, &config), 1u);
    OpenReceiver(kChannel);
    EXPECT_TRUE(fake::Deliver(&record, {stream.begin(), stream.begin() + 4}));
    auto receive =
        std::async(std::launch::async, [&] { return Transfer(kReceive, &bytes[0], 10); });
    EXPECT_TRUE(Until([&] { return row.Buffer.load()->GetDataSize() == 0; }));
    EXPECT_TRUE(fake::Deliver(&record, {stream.begin() + 4, stream.begin() + 12}));
    EXPECT_EQ(receive.get(), 1u);
    EXPECT_EQ(bytes, Bytes(stream.begin(), stream.begin() + 10));
    // A cancelled channel takes in what arrives, but is not read, measured or given a new socket.
    EXPECT_EQ(Cancel(kReceive), 1u);
    EXPECT_TRUE(fake::Deliver(&record, stream));
    EXPECT_EQ(Transfer(kReceive, &bytes[0], 1), 0u);
    EXPECT_EQ(row.Buffer.load()->GetDataSize(), stream.size() + 2);
    ASSERT_EQ(QXV_RTP_SetConfig(Handle, kReceive, kChannel, &config), 1u);
    record.BitrateActual = 99;
    const uint64_t ticks = testclock::Ticks;
    EXPECT_TRUE(Until([&] { return testclock::Ticks > ticks + 11; }));
    EXPECT_EQ(fake::Calls(Kind::Create).size(), 1u);
    EXPECT_EQ(record.BitrateActual, 99u);
}

TEST_F(LifecycleTest, HousekeepingOpensAndReplacesReceiveSockets) {
    QXV_RTP_Deconstructor();
    const uint64_t loaded = 1 + 2 * testclock::Ticks;
    ASSERT_EQ(QXV_RTP_Constructor(), 1);  // with a pass at once
    Handle = g_pContext;
    auto& record = Record(kReceive, kChannel);
    fake::Reset([&] { return record.Reopen + 2 * testclock::Ticks; });
    fake::Fail(Kind::Create, 2);
    auto config = Config("127.0.0.1", "224.5.6.7", 1);
    config.MulticastOption = 1;
    ASSERT_EQ(QXV_RTP_SetConfig(Handle, kReceive, kChannel, &config), 1u);
    OpenReceiver(kChannel);
    const uint64_t ticks = testclock::Ticks;
    ASSERT_TRUE(Until([&] { return testclock::Ticks > ticks + 11; }));  // left alone
    config = Config("::1", "::2", 0);
    ASSERT_EQ(QXV_RTP_SetConfig(Handle, kReceive, kChannel, &config), 1u);
    ASSERT_TRUE(Until([&] { return record.Reopen == 0; }));
    const auto creates = fake::Calls(Kind::Create), destroys = fake::Calls(Kind::Destroy);
    ASSERT_EQ(creates.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        const uint64_t since = creates[i].Stamp - creates[0].Stamp;
        EXPECT_TRUE(i > 2 || since == 20 * i);            // with the next pass,
        EXPECT_EQ((creates[i].Stamp - loaded) % 20, 0u);  // every tenth tick; and Reopen stays
        EXPECT_EQ(creates[i].Addresses, i < 3 ? "127.0.0.1 224.5.6.7" : "::1 0:0:0:0:0:0:0:0");
        EXPECT_EQ(creates[i].Options, i < 3 ? (fake::Numbers{5000, 5000, 1, 0, 1, 9})
                                            : (fake::Numbers{5000, 5000, 0, 0, 0, 9}));
        EXPECT_TRUE(creates[i].Callback == &RxProcess && creates[i].Context == &record);
    }
    ASSERT_EQ(destroys.size(), 1u);
    EXPECT_EQ(destroys[0].Socket, creates[2].Socket);
}

TEST_F(LifecycleTest, HousekeepingMeasuresRunningChannels) {
    testclock::Now_us = 1700000000000000;
    fake::Fail(Kind::Create, 1000);  // measured with or without a socket
    for (const uint32_t direction : {kSend, kReceive}) {
        ASSERT_EQ(Start(direction), 1u);
        auto* const timer = Row(direction, kChannel).Timer.load();
        timer->RxInitialize(1000 + direction);
        timer->IncreaseBlocksTransfered(100);
        testclock::Now_us += 1000000;
        ASSERT_TRUE(Until(
            [&] { return Record(direction, kChannel).BitrateActual == 800000 + 800 * direction; }));
    }
    uint32_t rate = 0;
    EXPECT_EQ(QXV_RTP_GetBitrate(Handle, kChannel, &rate), 1u);
    EXPECT_EQ(rate, 800800u);  // the receive channel's
}

// A socket is being made from the old configuration when a new one is stored.
TEST_F(LifecycleTest, AConfigurationStoredMeanwhileIsNotLost) {
    static void (*const kChanges[])(RtpChannelConfig&) = {
        [](auto& config) { config.Port = 5001; },
        [](auto& config) { config.Ttl = 10; },
        [](auto& config) { strcpy(config.LocalAddress, "127.0.0.2"); },
        [](auto& config) { strcpy(config.RemoteAddress, "224.5.6.8"); },
        [](auto& config) { config.MulticastOption = 1; },
    };
    for (const uint32_t direction : {kSend, kReceive}) {
        for (const auto& change : kChanges) {
            SCOPED_TRACE(&change - kChanges);
            if (direction == kSend && &change == std::end(kChanges) - 1)
                continue;  // has no such option
            fake::Reset();
            auto config = Config("127.0.0.1", "224.5.6.7", 1);
            ASSERT_EQ(QXV_RTP_SetConfig(Handle, direction, kChannel, &config), 1u);
            fake::Hold(Kind::Create);
            ASSERT_EQ(Start(direction), 1u);
            ASSERT_TRUE(Until([] { return fake::IsHeld(); }));
            change(config);
            ASSERT_EQ(QXV_RTP_SetConfig(Handle, direction, kChannel, &config), 1u);
            fake::Release();
            ASSERT_TRUE(Until([&] {
                return fake::Calls(Kind::Create).size() == 2 &&
                       Record(direction, kChannel).Reopen == 0;
            }));
            const auto last = fake::Calls(Kind::Create).back();
            EXPECT_EQ(last.Addresses,
                      std::string(config.LocalAddress) + " " + config.RemoteAddress);
            EXPECT_EQ(last.Options, (fake::Numbers{config.Port, config.Port, 1, direction == kSend,
                                                   config.MulticastOption, config.Ttl}));
            EXPECT_EQ(End(direction), 1u);
        }
    }
}

// An end meets a socket that is just being made or destroyed.
TEST_F(LifecycleTest, AnEndMeanwhileLeavesNoSocketBehind) {
    for (const uint32_t direction : {kSend, kReceive}) {
        for (const Kind held : {Kind::Create, Kind::Destroy}) {
            ASSERT_EQ(Start(direction), 1u);
            ASSERT_TRUE(Until([&] { return Record(direction, kChannel).Reopen == 0; }));
            fake::Hold(held);
            Record(direction, kChannel).Reopen = 1;
            ASSERT_TRUE(Until([] { return fake::IsHeld(); }));
            auto end = std::async(std::launch::async, [&] { return End(direction); });
            EXPECT_TRUE(Until([&] { return Row(direction, kChannel).Cancel == 1; }));
            EXPECT_EQ(end.wait_for(20ms), std::future_status::timeout);
            fake::Release();
            EXPECT_EQ(end.get(), 1u);
            EXPECT_TRUE(IsEmpty(Row(direction, kChannel)));
            EXPECT_EQ(fake::OpenSockets(), 0u);
        }
    }
}

}  // namespace
