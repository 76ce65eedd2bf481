// What the tool reads from the command line and from streams.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <sstream>

#include "RateFollower.h"
#include "TransportStream.h"
#include "base/Errors.h"
#include "base/Quantity.h"
#include "media/StreamUrl.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct PacketFields {
    uint16_t pid = 0x100;
    uint8_t counter = 0;
    bool payload = true;
    bool discontinuous = false;
    std::optional<uint64_t> pcr = std::nullopt;  // 27 MHz
};

// Packets of these fields, one behind the other.
Bytes make(const PacketFields& fields, size_t packetSize = 188, size_t count = 1) {
    const uint64_t pid = fields.pid, counter = fields.counter, pcr = fields.pcr.value_or(0);
    const uint64_t base = pcr / 300, extension = pcr % 300;
    const bool adaptation = fields.pcr || fields.discontinuous || !fields.payload;
    const uint64_t flags = (fields.discontinuous ? 0x80u : 0u) | (fields.pcr ? 0x10u : 0u);
    const uint64_t control = (adaptation ? 0x20u : 0u) | (fields.payload ? 0x10u : 0u);
    const uint64_t bytes[] = {0x47,
                              pid >> 8,
                              pid,
                              control | counter,
                              fields.payload ? 7u : 183u,
                              flags,
                              base >> 25,
                              base >> 17,
                              base >> 9,
                              base >> 1,
                              (base & 1) << 7 | 0x7E | extension >> 8,
                              extension};
    Bytes stream(count * packetSize, 0xAA);
    for (size_t i = 0; i < count; ++i)
        for (size_t at = 0; at < (adaptation ? 12 : 4); ++at)
            stream[i * packetSize + at] = static_cast<uint8_t>(bytes[at]);
    return stream;
}

// What a URL means, or why it is refused.
std::string describe(const std::string& text) try {
    const StreamUrl url = parseStreamUrl(text);
    return fmt::format(
        "{} {} {} {} {} {}{}{}{}", url.rtp ? "rtp" : "raw",
        url.hostIsName  ? "name"
        : url.multicast ? "group"
                        : "host",
        url.host, url.port, url.ttl, url.localAddress,
        url.source.empty() ? "" : (url.sourceIsName ? "from name " : "from host ") + url.source,
        url.interface.empty() ? "" : " on " + url.interface,
        url.dscp ? fmt::format(" marked {}", *url.dscp) : "");
} catch (const UsageError& error) {
    return std::string("refused: ") + error.what();
}

TEST(ToolUrl, AcceptsWhatTheFieldWrites) {
    const std::pair<const char*, const char*> cases[] = {
        {"RTP://@239.1.1.1:1234/?ttl=0", "rtp group 239.1.1.1 1234 0 "},
        {"udp://@:65535", "raw host 0.0.0.0 65535 16 "},
        {"udp://[ff15::1]:1?ttl=255&localaddr=[::1]", "raw group ff15::1 1 255 ::1"},
        {"rtp://@[fe80::1%eth0]:7", "rtp host fe80::1%eth0 7 16 "},
        {"udp://Encoder7.example.:5000", "raw name encoder7.example. 5000 16 "},
        {"rtp://my_host-2:5?dscp=34&iface=eth0.7", "rtp name my_host-2 5 16  on eth0.7 marked 34"},
        {"rtp://192.0.2.9@232.1.1.1:5?dscp=0",
         "rtp group 232.1.1.1 5 16 from host 192.0.2.9 marked 0"},
        {"udp://[2001:db8::9]@[ff3e::1]:5", "raw group ff3e::1 5 16 from host 2001:db8::9"},
        {"udp://@[ff3e::1]:5?source=2001:db8::9", "raw group ff3e::1 5 16 from host 2001:db8::9"},
        {"udp://232.1.1.1:5?sources=encoder7", "raw group 232.1.1.1 5 16 from name encoder7"},
        {"udp://@239.1.1.1:5?pkt_size=1316&fifo_size=1000000&reuse_addr&connect=0&ttl=4",
         "raw group 239.1.1.1 5 4 "}};
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(describe(text), expected) << text;
}

TEST(ToolUrl, RefusesWhatCannotBeMeantAndSaysWhatCan) {
    // Some come with a part of the answer.
    std::istringstream cases(R"(
        127.0.0.1:5000|write http://127.0.0.1:1|write udp://::1:5000|udp://[::1]:5000
        udp://10.1:5|encoder7 udp://1.2.3.4:5?ttl=256|255 udp://1.2.3.4:5?localaddr=eth0|iface=NAME
        udp://239.1.1.1:5?dscp=64|63 udp://239.1.1.1:5?foo=1|source=HOST
        udp://239.1.1.1:5?pkt_size=1472|1316 udp://239.1.1.1:5?timeout=1000000|--idle-timeout
        udp://10.0.0.1@10.0.0.2:5|group udp://239.1.1.1:5?sources=10.0.0.1,10.0.0.2|one
        udp://[::1]@239.1.1.1:5|IPv4 udp://10.0.0.1@239.1.1.1:5?source=10.0.0.2|one
        udp://239.1.1.1:5?iface=eth0&localaddr=10.0.0.1|them udp:// udp://127.0.0.1 udp://1.2.3.4:0
        udp://1.2.3.4:65536 udp://1.2.3.4:-1 udp://1.2.3.4:5x udp://300.1.1.1:5 udp://.:5
        udp://0x7f000001:5 udp://-host:5 udp://ho$t:5 udp://[::1:5000 udp://[::1]5000 udp://[]:5
        udp://[1.2.3.4]:5 udp://[host]:5 udp://[fe80::1%]:5 udp://1.2.3.4%lo:5
        udp://239.1.1.2@239.1.1.1:5 udp://@@239.1.1.1:5 udp://1.2.3.4:5?ttl udp://239.1.1.1:5?source
        udp://239.1.1.1:5?iface= udp://1.2.3.4:5?localaddr=::1 udp://1.2.3.4:5?localaddr=239.1.1.1
        udp://239.1.1.1:5?iface=a234567890123456)");
    for (std::string text; cases >> text;) {
        const std::string url = text.substr(0, text.find('|')), answer = describe(url);
        EXPECT_TRUE(answer.starts_with("refused")) << text;
        const std::string part = text == url ? "" : text.substr(url.size() + 1);
        EXPECT_NE(answer.find(part), std::string::npos) << text << answer;
    }
    EXPECT_THROW(checkDestination(parseStreamUrl("udp://@:5000")), UsageError);
    for (const char* const option : {"localaddr=127.0.0.1", "iface=lo"})
        EXPECT_THROW(checkSource(parseStreamUrl(std::string("udp://127.0.0.1:5?") + option)),
                     UsageError);
}

std::string addresses(RtpChannelConfig config(const StreamUrl&), const std::string& url) try {
    const RtpChannelConfig made = config(parseStreamUrl(url));
    return fmt::format("{} {}", made.RemoteAddress, made.LocalAddress);
} catch (const UsageError&) {
    return "refused";
} catch (const Failure& failure) {
    return failure.what();
}

// In the test's network there is the loopback interface only; its names are in every hosts file.
TEST(ToolUrl, NamesOfHostsAndInterfacesGiveWayToAddresses) {
    const std::array<std::string, 3> cases[] = {
        // URL, remote and local address of both directions
        {"udp://[::1]:5", "::1 ::", "::1 ::1"},
        {"udp://localhost:5?localaddr=127.0.0.1", "127.0.0.1 127.0.0.1", "refused"},
        {"udp://239.1.1.1:5?iface=lo", "239.1.1.1 127.0.0.1", "239.1.1.1 127.0.0.1"},
        {"udp://[ff15::1]:5?iface=lo", "ff15::1%lo ::", "ff15::1%lo ::"},
        {"udp://[fe80::1]:5?iface=lo", "fe80::1%lo ::", "refused"},
        {"udp://239.1.1.1:5?source=localhost&dscp=34", "127.0.0.1@239.1.1.1?dscp=34 0.0.0.0",
         "127.0.0.1@239.1.1.1?dscp=34 0.0.0.0"}};
    for (const auto& [url, sent, received] : cases) {
        EXPECT_EQ(addresses(sendConfig, url), sent) << url;
        EXPECT_EQ(addresses(receiveConfig, url), received) << url;
    }
    for (const char* text : {"udp://no-such.invalid:5", "udp://239.1.1.1:5?iface=no-such",
                             "udp://239.1.1.1:5?source=no-such.invalid"})
        EXPECT_NE(addresses(sendConfig, text).find("no-such"), std::string::npos) << text;
    EXPECT_EQ(addresses(receiveConfig, "udp://localhost:5?source=127.0.0.1"), "refused");
}

TEST(ToolQuantity, IsReadWithItsSuffixAndWrittenWithItsPlural) {
    EXPECT_EQ(parseQuantity("2500000"), 2500000u);
    EXPECT_EQ(parseQuantity("2.5M"), 2500000u);
    for (const char* text :
         {"", "k", "-1", "+1", "1e6", "0x10", "inf", "nan", "1kk", "99999999999G"})
        EXPECT_EQ(parseQuantity(text), std::nullopt) << text;
    EXPECT_EQ(counted(0, "break") + counted(1, "break") + counted(2, "break"),
              "0 breaks1 break2 breaks");
}

TEST(ToolPackets, AreFoundBehindGarbage) {
    for (const size_t size : {188u, 204u}) {
        for (const size_t garbage : {0u, 1u, 203u, 1000u}) {
            Bytes data(garbage, 0x00);
            if (garbage > 0)
                data[garbage / 2] = 0x47;
            const Bytes stream = make({}, size, 6);
            data.insert(data.end(), stream.begin(), stream.end());
            const auto layout = findPackets(data);
            ASSERT_TRUE(layout) << size << " behind " << garbage;
            EXPECT_EQ(layout->packetSize, size);
            EXPECT_EQ(layout->offset, garbage);
        }
    }
    EXPECT_FALSE(findPackets(make({}, 188, 2)));
    const Bytes good = make({}, 188, 20);
    Bytes broken = good;
    broken.resize(broken.size() + 77, 0x00);
    broken.insert(broken.end(), good.begin(), good.end());
    PacketSplitter splitter;
    for (const uint8_t& byte : broken)
        splitter.feed({&byte, 1}, [](const uint8_t* packet) { EXPECT_EQ(packet[0], 0x47); });
    EXPECT_EQ(splitter.packets(), 40u);
    EXPECT_EQ(splitter.syncLosses(), 1u);
}

// 1 Mbit/s: 10 packets of 188 bytes take 15.04 ms.
TEST(ToolPcr, RateIsThatOfTheClockWhateverBreaksIt) {
    constexpr uint64_t kStep = 406080;
    constexpr uint64_t kEnd = (uint64_t{1} << 33) * 300;
    const struct {
        const char* what;
        uint64_t first, jump;  // the jump comes half way
        bool announced;        // by the discontinuity indicator
    } cases[] = {{"plain", 0, 0, false},
                 {"wraps", kEnd - 3 * kStep - 1, 0, false},
                 {"jumps ahead", 5, 540'000'000, false},
                 {"jumps back", 900 * 27'000'000ull, kEnd - 27'000'000, false},
                 {"jumps a little, announced", 5, 10'000'000, true}};
    for (const auto& c : cases) {
        for (const size_t size : {188u, 204u}) {
            PcrBitrate rate(size);
            uint64_t pcr = c.first;
            for (int i = 0; i < 100; ++i) {
                PacketFields fields;
                if (i % 10 == 0) {
                    pcr += kStep + (i == 50 ? c.jump : 0);
                    fields.pcr = pcr % kEnd;
                    fields.discontinuous = i == 50 && c.announced;
                } else if (i % 10 == 5) {
                    fields.pid = 0x200;  // another programme's clock, seen for a shorter time
                    fields.pcr = i < 30 ? static_cast<uint64_t>(i) * 1000 : 0;
                }
                rate.add(make(fields, size).data());
            }
            EXPECT_EQ(rate.bitrate(), 1000000 * size / 188) << c.what << ", " << size;
        }
    }
    EXPECT_EQ(PcrBitrate(188).bitrate(), std::nullopt);
}

// 8 seconds, a PCR every 20 packets; the rate, the clock and its PID change half way.
TEST(ToolRateFollower, TellsNewRatesAndNoneForNoiseAndSplices) {
    constexpr uint64_t kEnd = (uint64_t{1} << 33) * 300;
    const struct {
        const char* what;
        uint32_t first, second;  // rates
        uint64_t start, jump;
        uint16_t secondPid;
        uint64_t noise;  // ticks
    } cases[] = {{"noise, wraps", 3'000'000, 3'000'000, kEnd - 27'000'000, 0, 0x100, 100'000},
                 {"jumps back", 3'000'000, 3'000'000, 900'000'000, kEnd - 800'000'000, 0x100, 0},
                 {"slower", 5'000'000, 2'000'000, 0, 0, 0x100, 0},
                 {"faster, spliced", 2'000'000, 5'000'000, 7, 900'000'000, 0x300, 0}};
    for (const auto& c : cases) {
        RateFollower follower(188);
        std::vector<uint32_t> told;
        double time = 0;
        for (uint64_t i = 0; time < 8.0; ++i) {
            const bool second = time >= 4.0;
            PacketFields fields;
            if (i % 20 == 0) {
                fields.pid = second ? c.secondPid : fields.pid;
                const auto pcr = static_cast<uint64_t>(time * 27e6) + i / 20 % 2 * c.noise;
                fields.pcr = (c.start + (second ? c.jump : 0) + pcr) % kEnd;
            }
            follower.add(make(fields).data());
            if (const auto rate = follower.change())
                told.push_back(*rate);
            time += 1504.0 / (second ? c.second : c.first);
        }
        ASSERT_FALSE(told.empty()) << c.what;
        EXPECT_LE(told.size(), c.first == c.second ? 1 : 3) << c.what;  // also that of the step
        EXPECT_NEAR(told.front(), c.first, c.first * 0.005) << c.what;
        EXPECT_NEAR(told.back(), c.second, c.second * 0.005) << c.what;
        EXPECT_NEAR(std::chrono::duration<double>(follower.point().time).count(), 7.5, 0.5);
    }
}

TEST(ToolContinuity, CountsJumpsOnly) {
    using Packets = std::vector<PacketFields>;
    const std::tuple<const char*, Packets, uint64_t> cases[] = {
        {"in order", Packets{{.counter = 15}, {.counter = 0}}, 0},
        {"one missing", Packets{{.counter = 1}, {.counter = 3}, {.counter = 4}}, 1},
        {"duplicate", Packets{{.counter = 1}, {.counter = 1}, {.counter = 2}}, 0},
        {"repeated duplicate", Packets{{.counter = 1}, {.counter = 1}, {.counter = 1}}, 1},
        {"announced", Packets{{.counter = 1}, {.counter = 9, .discontinuous = true}}, 0},
        {"empty", Packets{{.counter = 1}, {.counter = 1, .payload = false}, {.counter = 2}}, 0},
        {"null packets", Packets{{.pid = 0x1FFF}, {.pid = 0x1FFF, .counter = 7}}, 0},
        {"two PIDs", Packets{{.pid = 1}, {.pid = 2, .counter = 9}, {.pid = 1, .counter = 1}}, 0},
    };
    for (const auto& [what, sequence, errors] : cases) {
        ContinuityCounter counter;
        for (const PacketFields& fields : sequence)
            counter.add(make(fields).data());
        EXPECT_EQ(counter.errors(), errors) << what;
    }
}

}  // namespace
