// Storing and reading configurations.
#include "ModuleFixture.h"

namespace {

using ConfigurationTest = ModuleTest;

TEST_F(ConfigurationTest, AcceptedAndNormalisedOrRefused) {
    constexpr uint32_t S = kSend, R = kReceive, kChannel = 15;
    constexpr char kAny4[] = "0.0.0.0", kAny6[] = "0:0:0:0:0:0:0:0";
    static const struct {
        uint32_t Direction;
        const char *Local, *Remote;
        uint8_t Multicast;
        const char* Stored;  // the remote address; null: refused
        uint8_t Option;
    } kCases[] = {{S, kAny4, "192.168.1.20", 0, "192.168.1.20", 0},
                  {S, kAny4, "224.1.1.5", 1, "224.1.1.5", 0},
                  {S, "::1", "ff02::1", 1, "ff02::1", 0},
                  {R, kAny4, "192.168.1.20", 0, kAny4, 0},
                  {R, "::1", "fe80::1", 0, kAny6, 0},
                  {R, kAny4, "224.1.1.5", 1, "224.1.1.5", 7},
                  {R, "::", "ff02::1", 1, "ff02::1", 7},
                  {R, kAny4, "10.0.0.1", 2, "10.0.0.1", 7},  // neither 0 nor 1: as it is
                  {S, kAny4, "10.0.0.1", 2, "10.0.0.1", 0},
                  {S, "224.1.0.0", "10.0.0.1", 0, nullptr, 0},
                  {S, "224.1.0.0", "224.1.0.0", 1, nullptr, 0},
                  {R, kAny4, "224.1.1.5", 0, nullptr, 0},
                  {R, kAny4, "224.1.1.5", 2, nullptr, 0},
                  {S, kAny4, "10.0.0.1", 1, nullptr, 0},
                  {S, kAny4, "::1", 0, nullptr, 0},
                  {R, "::1", "10.0.0.1", 0, nullptr, 0},
                  {S, "", "10.0.0.1", 0, nullptr, 0},
                  {S, "10.0.0.1", "nonsense", 0, nullptr, 0}};
    for (const auto& test : kCases) {
        SCOPED_TRACE(&test - kCases);
        const bool accepted = test.Stored != nullptr;
        auto& record = Record(test.Direction, kChannel);
        record.Reopen = 0;
        auto given = Config(test.Local, test.Remote, test.Multicast, 5);
        memset(given.RemoteAddress + 100, '#', 156);  // behind the text: kept as it is
        given.MulticastOption = 7;
        given.Reserved = 0xABCD;
        RtpChannelConfig before, after, expected = given;
        ASSERT_EQ(QXV_RTP_GetConfig(Handle, test.Direction, kChannel, &before), 1u);
        EXPECT_EQ(QXV_RTP_SetConfig(Handle, test.Direction, kChannel, &given), accepted);
        EXPECT_EQ(record.Reopen, accepted);
        if (accepted) {
            strcpy(expected.RemoteAddress, test.Stored);
            expected.MulticastOption = test.Option;
        }
        EXPECT_EQ(memcmp(&given, &expected, sizeof(given)), 0);
        ASSERT_EQ(QXV_RTP_GetConfig(Handle, test.Direction, kChannel, &after), 1u);
        EXPECT_EQ(memcmp(&after, accepted ? &expected : &before, sizeof(after)), 0);
    }
}

TEST_F(ConfigurationTest, ArgumentsThatMeanNothingAreRefused) {
    auto config = Config("0.0.0.0", "10.0.0.1", 0);
    const auto both = [&](void* handle, uint32_t direction, uint32_t channel, auto* record) {
        return QXV_RTP_GetConfig(handle, direction, channel, record) +
               QXV_RTP_SetConfig(handle, direction, channel, record);
    };
    RtpChannelConfig* const none = nullptr;
    EXPECT_EQ(both(nullptr, 0, 0, &config) + both(Handle, 0, 0, none), 0u);
    EXPECT_EQ(both(Handle, 2, 0, &config) + both(Handle, 0, 16, &config), 0u);
    EXPECT_EQ(both(Handle, 1, 16, &config), 0u);
    // An address that fills its field has no end; the fixture finds it misused if it is parsed.
    for (auto field : {&RtpChannelConfig::LocalAddress, &RtpChannelConfig::RemoteAddress}) {
        auto endless = Config("10.0.0.1", "10.0.0.1", 0);
        memset(endless.*field, '1', QXV_RTP_ADDRESS_SIZE);
        EXPECT_EQ(QXV_RTP_SetConfig(Handle, kSend, 0, &endless), 0u);
    }
}

}  // namespace
