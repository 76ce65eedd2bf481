// Any text as an address, beside what the system's own parser says of the part that is one.
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "Fuzz.h"
#include "ZAQSockets.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string all(data, std::find(data, data + size, 0));
    uint8_t bytes[16] = {99};
    uint8_t expected[16] = {};
    uint32_t count = 99;
    uint32_t zone = 99;
    int32_t multicast = 99;
    const uint32_t family =
        ZAQSocketsExtractIPAddress(all.c_str(), bytes, &count, &zone, &multicast);
    Check(ZAQSocketsExtractIPAddress(all.c_str(), nullptr, nullptr, nullptr, nullptr) == family);
    if (family == 0) {
        Check(bytes[0] == 99 && count == 99 && zone == 99 && multicast == 99);
        Check(inet_pton(AF_INET, all.c_str(), expected) != 1);
        Check(inet_pton(AF_INET6, all.c_str(), expected) != 1);
        return 0;
    }
    // Without a source, a zone and a mark.
    const std::string host = all.substr(all.find('@') + 1);
    const std::string address = host.substr(0, host.find_first_of("%?"));
    Check(inet_pton(static_cast<int>(family), address.c_str(), expected) == 1);
    Check(memcmp(bytes, expected, count) == 0 && count == (family == AF_INET ? 4 : 16));
    Check(multicast == (family == AF_INET ? bytes[0] / 16 == 14 : bytes[0] == 255));
    Check((zone != 0) == (host.find('%') != std::string::npos));
    return 0;
}
