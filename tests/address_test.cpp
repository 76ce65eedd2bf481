// What is taken for an address.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <sstream>
#include <string>

#include "ZAQSockets.h"

namespace {

// What is written, and what it means.
const char* const kAddresses =
    "0.0.0.0 = 0.0.0.0; 127.0.0.1 = 127.0.0.1; 255.255.255.255 = 255.255.255.255; "
    "223.255.255.255 = 223.255.255.255; 224.0.0.0 = 224.0.0.0 group; "
    "239.255.255.255 = 239.255.255.255 group; 240.0.0.0 = 240.0.0.0; :: = ::; "
    "0:0:0:0:0:0:0:0 = ::; ::1 = ::1; 2001:DB8::00A = 2001:db8::a; feff::1 = feff::1; "
    "ff15::abcd = ff15::abcd group; ::ffff:1.2.3.4 = ::ffff:1.2.3.4; "
    "::ffff:224.1.2.3 = ::ffff:224.1.2.3; fe80::1%lo = fe80::1 zone 1; "
    "ff02::1%1 = ff02::1 group zone 1; fe80::1%4294967295 = fe80::1 zone 4294967295; "
    "ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255%000000000000001 = "
    "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff group zone 1; "
    // with a source, with DSCP, with both, and the longest
    "192.0.2.9@232.1.1.1 = 232.1.1.1 group; 2001:db8::9@ff3e::1 = ff3e::1 group; "
    "::1@ff12::1%lo = ff12::1 group zone 1; 1.2.3.4?dscp=0 = 1.2.3.4; ::1?dscp=63 = ::1; "
    "fe80::1%1?dscp=09 = fe80::1 zone 1; 1.2.3.4@239.1.1.1?dscp=46 = 239.1.1.1 group; "
    "2001:0db8:0000:0000:0000:0000:255.255.255.255@"
    "ff3e:ffff:ffff:ffff:ffff:ffff:255.255.255.255%0000000000000001?dscp=63 = "
    "ff3e:ffff:ffff:ffff:ffff:ffff:ffff:ffff group zone 1; ";

const std::string kNoAddresses[] = {
    "", " ", "%", "%lo", ".", ":", "localhost", "example.com", "udp://1.2.3.4",
    // IPv4
    "1.2.3", "127.1", "2130706433", "1.2.3.4.5", "1.2.3.4.", ".1.2.3.4", "1..3.4", "256.0.0.1",
    "1.2.3.-4", "+1.2.3.4", "01.2.3.4", "1.2.3.04", "0x7f.0.0.1", " 1.2.3.4", "1.2.3.4 ",
    "1.2.3.4\n", "\t1.2.3.4", "1.2.3.4:80", "1.2.3.4/24", "1.2.3.4%lo", "1.2.3.4x",
    // IPv6
    ":::", "1::2::3", "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:8:9", "12345::", "::g", "::1 ", " ::1",
    "[::1]", "[::1]:80", "::1/64", "::1.2.3.256", "::ffff:1.2.3", "1.2.3.4::",
    // zones
    "::1%", "::1%nosuch", "::1%0", "::1%-1", "::1%+1", "::1% 1", "::1%1 ", "::1%1x", "::1%lo%lo",
    "::1%lo ", "::1%4294967296", "::1%00000000000000001", "::1%" + std::string(300, '1'),
    // sources: without a group, of another family, with a zone, no unicast, two of them
    "@232.1.1.1", "1.2.3.4@", "1.2.3.4@1.2.3.5", "::1@232.1.1.1", "1.2.3.4@ff3e::1",
    "fe80::1%lo@ff12::1%lo", "232.1.1.1@232.1.1.2", "0.0.0.0@232.1.1.1", "::@ff3e::1",
    "1.2.3.4@1.2.3.5@232.1.1.1", "1.2.3.4 @232.1.1.1",
    // DSCP: too large, no number, no such key, not at the end, twice
    "1.2.3.4?", "1.2.3.4?dscp", "1.2.3.4?dscp=", "1.2.3.4?dscp=64", "1.2.3.4?dscp=+1",
    "1.2.3.4?dscp=-1", "1.2.3.4?dscp=1 ", "1.2.3.4?dscp=001", "1.2.3.4?dscp=0x1", "1.2.3.4?foo=1",
    "1.2.3.4?DSCP=1", "1.2.3.4?dscp=1?dscp=1", "1.2.3.4?dscp=1&ttl=1", "?dscp=1",
    "1.2.3.4?dscp=1@232.1.1.1", "ff02::1?dscp=1%lo",
    // longer than any address, and right if it were cut
    "ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255%00000000000000011", std::string(255, '1'),
    std::string(256, ':'), "127.0.0.1" + std::string(300, ' '), std::string(300, '0') + "127.0.0.1",
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

TEST(AddressParser, NumericAddressGivesFamilyBytesZoneAndMulticastFlag) {
    std::istringstream rows(kAddresses);
    for (std::string row; std::getline(rows, row, ';') && rows >> std::ws;) {
        const size_t gap = row.find(" = ");
        EXPECT_EQ(Parse(row.substr(0, gap)), row.substr(gap + 3)) << row;
    }
}

TEST(AddressParser, AnythingElseGivesNoFamilyAndLeavesTheOutputsUntouched) {
    EXPECT_EQ(ZAQSocketsExtractIPAddress(nullptr, nullptr, nullptr, nullptr, nullptr), 0u);
    for (const std::string& text : kNoAddresses)
        EXPECT_EQ(Parse(text), "") << text;
}

}  // namespace
