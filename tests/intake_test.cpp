// What becomes of each datagram that arrives: when the mode switches, and what an end waits for.
// fuzz/intake_fuzz.cpp has datagrams of all forms, beside a model.
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
