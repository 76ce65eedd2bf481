// Storing and reading configurations.
#include <sstream>

#include "ModuleFixture.h"

namespace {

using ConfigurationTest = ModuleTest;

TEST_F(ConfigurationTest, AcceptedAndNormalisedOrRefused) {
    // Direction, local address, remote address, multicast; what is stored: remote address, option
    static const char* const kCases[] = {
        "send    0.0.0.0  192.168.1.20 0  192.168.1.20    0",
        "send    ::1      ff02::1      1  ff02::1         0",
        "receive 0.0.0.0  192.168.1.20 0  0.0.0.0         0",
        "receive ::1      fe80::1      0  0:0:0:0:0:0:0:0 0",
        "receive 0.0.0.0  224.1.1.5    1  224.1.1.5       7",
        "receive ::       ff02::1      1  ff02::1         7",
        "receive 0.0.0.0  10.0.0.1     2  10.0.0.1        7",  // neither 0 nor 1: as it is
        "send    0.0.0.0  10.0.0.1     2  10.0.0.1        0",
        "send    224.1.0.0 10.0.0.1    0  refused",
        "send    224.1.0.0 224.1.0.0   1  refused",
        "receive 0.0.0.0  224.1.1.5    0  refused",
        "receive 0.0.0.0  224.1.1.5    2  refused",
        "send    0.0.0.0  10.0.0.1     1  refused",
        "receive ::1      10.0.0.1     0  refused",
        "send    nonsense 10.0.0.1     0  refused",
        "send    10.0.0.1 nonsense     0  refused",
        "send    endless  10.0.0.1     0  refused",   // fills its field: the fixture finds it
        "send    10.0.0.1 endless      0  refused"};  // misused if it is parsed
    for (const char* const text : kCases) {
        SCOPED_TRACE(text);
        std::string direction, local, remote, stored;
        uint32_t multicast = 0, option = 0;
        std::istringstream(text) >> direction >> local >> remote >> multicast >> stored >> option;
        const uint32_t number = direction == "send" ? kSend : kReceive;
        const bool accepted = stored != "refused";
        auto given = Config(local.c_str(), remote.c_str(), static_cast<uint8_t>(multicast), 5);
        memset(given.RemoteAddress + 100, '#', 156);  // behind the text: kept as it is
        for (char* field : {given.LocalAddress, given.RemoteAddress}) {
            if (strcmp(field, "endless") == 0)
                memset(field, '1', QXV_RTP_ADDRESS_SIZE);
        }
        given.MulticastOption = 7;
        given.Reserved = 0xABCD;
        auto& record = Record(number, 15);
        record.Reopen = 0;
        RtpChannelConfig before, after, expected = given;
        ASSERT_EQ(QXV_RTP_GetConfig(Handle, number, 15, &before), 1u);
        EXPECT_EQ(QXV_RTP_SetConfig(Handle, number, 15, &given), accepted);
        EXPECT_EQ(record.Reopen, accepted);
        if (accepted) {
            strcpy(expected.RemoteAddress, stored.c_str());
            expected.MulticastOption = static_cast<uint8_t>(option);
        }
        EXPECT_EQ(memcmp(&given, &expected, sizeof(given)), 0);
        ASSERT_EQ(QXV_RTP_GetConfig(Handle, number, 15, &after), 1u);
        EXPECT_EQ(memcmp(&after, accepted ? &expected : &before, sizeof(after)), 0);
    }
}

}  // namespace
