// Any 520 bytes as a configuration, beside the rules by which one is refused or normalised.
//
// Input: direction and channel in one byte, then the record; what is missing is zeros.
#include <arpa/inet.h>

#include <cstring>
#include <string>

#include "FakeSockets.h"
#include "Fuzz.h"
#include "Module.h"

// 0 = no address; the socket library of the tests knows no zones, and any DSCP.
static int FamilyOf(const char (&field)[QXV_RTP_ADDRESS_SIZE], bool remote, bool& group) {
    uint8_t bytes[16];
    if (memchr(field, 0, sizeof(field)) == nullptr)
        return 0;
    const std::string host(field, remote ? strcspn(field, "?") : strlen(field));
    const int family = inet_pton(AF_INET, host.c_str(), bytes) == 1    ? AF_INET
                       : inet_pton(AF_INET6, host.c_str(), bytes) == 1 ? AF_INET6
                                                                       : 0;
    group = family == AF_INET ? bytes[0] / 16 == 14 : bytes[0] == 255;
    return family;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input{{data, size}};
    const uint32_t direction = input.Byte();
    const uint32_t channel = direction / 2 % kChannels;
    RtpChannelContext& record = g_pContext->Channels[direction % 2][channel];
    record.Reopen = 0;
    RtpChannelConfig given{};
    std::ranges::copy(input.Bytes(sizeof(given)), reinterpret_cast<uint8_t*>(&given));
    bool localGroup = false;
    bool group = false;
    const int family = FamilyOf(given.LocalAddress, false, localGroup);
    const bool good = family != 0 && !localGroup &&
                      FamilyOf(given.RemoteAddress, true, group) == family &&
                      group == (given.Multicast == 1);
    RtpChannelConfig expected = good ? given : record.Config;
    if (good && (direction % 2 == kSend || given.Multicast == 0))
        expected.MulticastOption = 0;
    if (good && direction % 2 == kReceive && given.Multicast == 0)
        strcpy(expected.RemoteAddress, family == AF_INET ? "0.0.0.0" : "0:0:0:0:0:0:0:0");

    RtpChannelConfig passed = given;
    Check(QXV_RTP_SetConfig(g_pContext, direction % 2, channel, &passed) == uint32_t{good});
    Check(memcmp(&passed, good ? &expected : &given, sizeof(passed)) == 0);
    Check(QXV_RTP_GetConfig(g_pContext, direction % 2, channel, &passed) == 1);
    Check(memcmp(&passed, &expected, sizeof(passed)) == 0 && record.Reopen == uint32_t{good});
    Check(Fake()->Misuses == 0);
    return 0;
}
