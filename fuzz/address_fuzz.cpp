// Any text as an address, beside what the system's own parser says of its parts.
#include <arpa/inet.h>
#include <net/if.h>

#include <algorithm>
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

// What the text of an address alone means.
struct Parsed {
    explicit Parsed(const std::string& text) {
        const size_t percent = text.find('%');
        const bool zoned = percent != std::string::npos;
        Zone = zoned ? ZoneOf(text.substr(percent + 1)) : 0;
        if (!zoned && inet_pton(AF_INET, text.c_str(), Bytes) == 1)
            Family = AF_INET;
        else if (zoned == (Zone != 0) &&
                 inet_pton(AF_INET6, text.substr(0, percent).c_str(), Bytes) == 1)
            Family = AF_INET6;
        IsGroup = Family == AF_INET ? Bytes[0] / 16 == 14 : Family == AF_INET6 && Bytes[0] == 255;
    }
    uint8_t Bytes[16] = {};
    uint32_t Family = 0;
    uint32_t Zone = 0;
    bool IsGroup;
};

static bool IsSourceOf(const std::string& text, const Parsed& group) {
    static const uint8_t kAny[16] = {};
    const Parsed source(text);
    return source.Family == group.Family && group.IsGroup && !source.IsGroup &&
           memcmp(source.Bytes, kAny, sizeof(kAny)) != 0 && text.find('%') == std::string::npos;
}

static bool IsDscp(const std::string& text) {
    for (int n = 0; n < 64; ++n)
        if (text == "dscp=" + std::to_string(n) || (n < 10 && text == "dscp=0" + std::to_string(n)))
            return true;
    return false;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string all(data, std::find(data, data + size, 0));
    const size_t mark = std::min(all.find('?'), all.size());
    const std::string addresses = all.substr(0, mark);
    const size_t at = addresses.find('@');
    const Parsed host(at == std::string::npos ? addresses : addresses.substr(at + 1));
    const bool right = (mark == all.size() || IsDscp(all.substr(mark + 1))) &&
                       (at == std::string::npos || IsSourceOf(addresses.substr(0, at), host));
    const uint32_t family = right ? host.Family : 0;

    uint8_t bytes[16] = {};
    uint32_t count = 99;
    uint32_t zone = 99;
    int32_t multicast = 99;
    Check(ZAQSocketsExtractIPAddress(all.c_str(), bytes, &count, &zone, &multicast) == family);
    Check(ZAQSocketsExtractIPAddress(all.c_str(), nullptr, nullptr, nullptr, nullptr) == family);
    if (family == 0)
        Check(count == 99 && zone == 99 && multicast == 99);
    else
        Check(memcmp(bytes, host.Bytes, 16) == 0 && count == (family == AF_INET ? 4 : 16) &&
              zone == host.Zone && multicast == int32_t{host.IsGroup});
    return 0;
}
