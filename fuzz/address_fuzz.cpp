// Any text as an address, beside what the system's own parser says of its parts.
#include <arpa/inet.h>
#include <net/if.h>

#include <cstring>
#include <string>

#include "Fuzz.h"
#include "ZAQSockets.h"

namespace {

// 0 = none.
uint32_t ZoneOf(const std::string& text) {
    if (text.size() > IF_NAMESIZE)
        return 0;
    const bool digits = text.find_first_not_of("0123456789") == std::string::npos;
    const uint32_t named = if_nametoindex(text.c_str());
    const unsigned long long number = digits ? strtoull(text.c_str(), nullptr, 10) : 0;
    return named != 0 ? named : number <= UINT32_MAX ? static_cast<uint32_t>(number) : 0;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string whole(reinterpret_cast<const char*>(data),
                            strnlen(reinterpret_cast<const char*>(data), size));
    const size_t percent = whole.find('%');
    const std::string text = whole.substr(0, percent);
    const uint32_t wantedZone =
        percent == std::string::npos ? 0 : ZoneOf(whole.substr(percent + 1));
    uint8_t wanted[16] = {};
    uint32_t family = 0;
    if (percent == std::string::npos && inet_pton(AF_INET, text.c_str(), wanted) == 1)
        family = AF_INET;
    else if ((percent == std::string::npos || wantedZone != 0) &&
             inet_pton(AF_INET6, text.c_str(), wanted) == 1)
        family = AF_INET6;

    uint8_t bytes[16] = {};
    uint32_t count = 99;
    uint32_t zone = 99;
    int32_t multicast = 99;
    FUZZ_CHECK(ZAQSocketsExtractIPAddress(whole.c_str(), bytes, &count, &zone, &multicast) ==
               family);
    FUZZ_CHECK(ZAQSocketsExtractIPAddress(whole.c_str(), nullptr, nullptr, nullptr, nullptr) ==
               family);
    if (family == 0) {
        FUZZ_CHECK(count == 99 && zone == 99 && multicast == 99);
        return 0;
    }
    FUZZ_CHECK(memcmp(bytes, wanted, sizeof(bytes)) == 0);
    FUZZ_CHECK(count == (family == AF_INET ? 4 : 16) && zone == wantedZone);
    FUZZ_CHECK(multicast == (family == AF_INET ? wanted[0] / 16 == 14 : wanted[0] == 255));
    return 0;
}
