// Any text as an address, beside what the system's own parser says of its parts.
#include <arpa/inet.h>
#include <net/if.h>

#include <cstring>
#include <string>

#include "Fuzz.h"
#include "ZAQSockets.h"

// 0 = none.
static uint32_t ZoneOf(const std::string& text) {
    if (text.size() > IF_NAMESIZE || if_nametoindex(text.c_str()) != 0)
        return if_nametoindex(text.c_str());
    const bool digits = text.find_first_not_of("0123456789") == std::string::npos;
    const unsigned long long number = digits ? strtoull(text.c_str(), nullptr, 10) : 0;
    return number <= UINT32_MAX ? static_cast<uint32_t>(number) : 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string all(data, std::find(data, data + size, 0));
    const size_t percent = all.find('%');
    const bool zoned = percent != std::string::npos;
    const uint32_t wantedZone = zoned ? ZoneOf(all.substr(percent + 1)) : 0;
    uint8_t wanted[16] = {};
    uint32_t family = 0;
    if (!zoned && inet_pton(AF_INET, all.c_str(), wanted) == 1)
        family = AF_INET;
    else if (zoned == (wantedZone != 0) &&
             inet_pton(AF_INET6, all.substr(0, percent).c_str(), wanted) == 1)
        family = AF_INET6;
    const bool group = family == AF_INET ? wanted[0] / 16 == 14 : wanted[0] == 255;

    uint8_t bytes[16] = {};
    uint32_t count = 99;
    uint32_t zone = 99;
    int32_t multicast = 99;
    Check(ZAQSocketsExtractIPAddress(all.c_str(), bytes, &count, &zone, &multicast) == family);
    Check(ZAQSocketsExtractIPAddress(all.c_str(), nullptr, nullptr, nullptr, nullptr) == family);
    if (family == 0)
        Check(count == 99 && zone == 99 && multicast == 99);
    else
        Check(memcmp(bytes, wanted, 16) == 0 && count == (family == AF_INET ? 4 : 16) &&
              zone == wantedZone && multicast == int32_t{group});
    return 0;
}
