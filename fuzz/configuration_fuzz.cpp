// Any 520 bytes as a configuration, beside the rules by which one is refused or normalised.
//
// Input: direction and channel in one byte, then the record; what is missing is zeros.
#include <arpa/inet.h>

#include <cstring>
#include <string>

#include "FakeSockets.h"
#include "Fuzz.h"
#include "Module.h"

namespace {

// 0 = no address; the socket library of the tests knows no zones.
int FamilyOf(const char (&field)[QXV_RTP_ADDRESS_SIZE], bool& group) {
    const std::string text(field, strnlen(field, sizeof(field)));
    uint8_t bytes[16];
    if (text.size() == sizeof(field))
        return 0;
    for (const int family : {AF_INET, AF_INET6})
        if (inet_pton(family, text.c_str(), bytes) == 1) {
            group = family == AF_INET ? bytes[0] / 16 == 14 : bytes[0] == 255;
            return family;
        }
    return 0;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const uint32_t where = input.Byte();
    const uint32_t direction = where % 2;
    const uint32_t channel = where / 2 % kChannels;
    RtpChannelConfig given{};
    const auto bytes = input.Bytes(sizeof(given));
    std::copy(bytes.begin(), bytes.end(), reinterpret_cast<uint8_t*>(&given));
    RtpChannelContext& record = g_pContext->Channels[direction][channel];
    record.Reopen = 0;
    RtpChannelConfig expected;
    QXV_RTP_GetConfig(g_pContext, direction, channel, &expected);

    bool localGroup = false;
    bool group = false;
    const int family = FamilyOf(given.LocalAddress, localGroup);
    const bool good = family != 0 && !localGroup &&
                      FamilyOf(given.RemoteAddress, group) == family &&
                      group == (given.Multicast == 1);
    if (good) {
        expected = given;
        const bool unicast = given.Multicast == 0;
        if (direction == kSend || unicast)
            expected.MulticastOption = 0;
        if (direction == kReceive && unicast)
            strcpy(expected.RemoteAddress, family == AF_INET ? "0.0.0.0" : "0:0:0:0:0:0:0:0");
    }
    RtpChannelConfig passed = given;
    FUZZ_CHECK(QXV_RTP_SetConfig(g_pContext, direction, channel, &passed) == uint32_t{good});
    FUZZ_CHECK(memcmp(&passed, good ? &expected : &given, sizeof(passed)) == 0);
    RtpChannelConfig stored;
    FUZZ_CHECK(QXV_RTP_GetConfig(g_pContext, direction, channel, &stored) == 1);
    FUZZ_CHECK(memcmp(&stored, &expected, sizeof(stored)) == 0);
    FUZZ_CHECK(record.Reopen == uint32_t{good});
    return 0;
}
