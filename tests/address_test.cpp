// What is taken for an address.
#include <sys/mman.h>

#include <cstring>

#include "ProcessSupport.h"
#include "ZAQSockets.h"

namespace {

// Longer than any address, and right if they were cut; or with what no line of a file can hold.
const std::string kMoreThatAreNone[] = {"1.2.3.4\n",
                                        "\t1.2.3.4",
                                        "::1%" + std::string(300, '1'),
                                        std::string(255, '1'),
                                        std::string(256, ':'),
                                        "127.0.0.1" + std::string(300, ' '),
                                        std::string(300, '0') + "127.0.0.1",
                                        "::" + std::string(4000, '0')};

// The text, with its NUL the last byte that may be read.
const char* AtEndOfPage(const std::string& text) {
    constexpr size_t kPage = 4096;
    static char* const page = [] {
        void* const pages =
            mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        mprotect(static_cast<char*>(pages) + kPage, kPage, PROT_NONE);
        return static_cast<char*>(pages);
    }();
    return static_cast<char*>(
        memcpy(page + kPage - text.size() - 1, text.c_str(), text.size() + 1));
}

// All that the parser tells of a text; empty for no address.
std::string Parse(const std::string& text) {
    unsigned char bytes[16] = {99};
    uint32_t count = 99;
    uint32_t zone = 99;
    int32_t multicast = 99;
    const char* const guarded = AtEndOfPage(text);
    const uint32_t family = ZAQSocketsExtractIPAddress(guarded, bytes, &count, &zone, &multicast);
    EXPECT_EQ(ZAQSocketsExtractIPAddress(guarded, nullptr, nullptr, nullptr, nullptr), family);
    if (family == 0) {
        EXPECT_TRUE(bytes[0] == 99 && count == 99 && zone == 99 && multicast == 99) << text;
        return "";
    }
    EXPECT_EQ(count, family == AF_INET ? 4u : 16u) << text;
    EXPECT_EQ(multicast & ~1, 0) << text;
    char canonical[INET6_ADDRSTRLEN] = "";
    inet_ntop(static_cast<int>(family), bytes, canonical, sizeof(canonical));
    return canonical + std::string(multicast != 0 ? " group" : "") +
           (zone != 0 ? " zone " + std::to_string(zone) : "");
}

TEST(AddressParser, TellsFamilyBytesZoneAndGroupOrLeavesTheOutputsUntouched) {
    for (const std::string& row : Cases("addresses.txt")) {
        const size_t end = row.rfind('"');
        EXPECT_EQ(Parse(row.substr(1, end - 1)), row.substr(std::min(end + 4, row.size()))) << row;
    }
    for (const std::string& text : kMoreThatAreNone)
        EXPECT_EQ(Parse(text), "") << text;
    EXPECT_EQ(ZAQSocketsExtractIPAddress(nullptr, nullptr, nullptr, nullptr, nullptr), 0u);
}

}  // namespace
