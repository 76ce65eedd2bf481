// What the tool reads from the command line and from streams.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "RateFollower.h"
#include "TransportStream.h"
#include "base/Errors.h"
#include "base/Quantity.h"
#include "media/HostNames.h"
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

void append(Bytes& stream, const PacketFields& fields, size_t packetSize = 188) {
    const bool adaptation = fields.pcr || fields.discontinuous || !fields.payload;
    Bytes packet(packetSize, 0xAA);
    packet[0] = 0x47;
    packet[1] = static_cast<uint8_t>(fields.pid >> 8);
    packet[2] = static_cast<uint8_t>(fields.pid);
    packet[3] = static_cast<uint8_t>((adaptation ? 0x20 : 0) | (fields.payload ? 0x10 : 0) |
                                     fields.counter);
    if (adaptation) {
        const uint64_t base = fields.pcr.value_or(0) / 300;
        const uint64_t extension = fields.pcr.value_or(0) % 300;
        packet[4] = fields.payload ? 7 : 183;
        packet[5] =
            static_cast<uint8_t>((fields.discontinuous ? 0x80 : 0) | (fields.pcr ? 0x10 : 0));
        for (unsigned int i = 0; i < 4; ++i)
            packet[6 + i] = static_cast<uint8_t>(base >> (25 - 8 * i));
        packet[10] = static_cast<uint8_t>((base & 1) << 7 | 0x7E | extension >> 8);
        packet[11] = static_cast<uint8_t>(extension);
    }
    stream.insert(stream.end(), packet.begin(), packet.end());
}

Bytes packets(size_t count, size_t packetSize) {
    Bytes stream;
    for (size_t i = 0; i < count; ++i)
        append(stream, {}, packetSize);
    return stream;
}

std::string describe(const StreamUrl& url) {
    std::string text = fmt::format("{} {} {} {} {} {}", url.rtp ? "rtp" : "raw",
                                   url.hostIsName  ? "name"
                                   : url.multicast ? "group"
                                                   : "host",
                                   url.host, url.port, url.ttl, url.localAddress);
    if (!url.source.empty())
        text += fmt::format("from {} {}", url.sourceIsName ? "name" : "host", url.source);
    if (!url.interface.empty())
        text += " on " + url.interface;
    return url.dscp ? fmt::format("{} marked {}", text, *url.dscp) : text;
}

TEST(ToolUrl, AcceptsWhatTheFieldWrites) {
    const std::pair<const char*, const char*> cases[] = {
        {"udp://127.0.0.1:5000", "raw host 127.0.0.1 5000 16 "},
        {"RTP://@239.1.1.1:1234/?ttl=0", "rtp group 239.1.1.1 1234 0 "},
        {"udp://@:65535", "raw host 0.0.0.0 65535 16 "},
        {"udp://[ff15::1]:1?ttl=255&localaddr=[::1]", "raw group ff15::1 1 255 ::1"},
        {"rtp://@[fe80::1%eth0]:7", "rtp host fe80::1%eth0 7 16 "},
        {"udp://224.0.0.1:9?localaddr=10.0.0.1", "raw group 224.0.0.1 9 16 10.0.0.1"},
        {"udp://Encoder7.example.:5000", "raw name encoder7.example. 5000 16 "},
        {"rtp://my_host-2:5000?dscp=34&iface=eth0.7",
         "rtp name my_host-2 5000 16  on eth0.7 marked 34"},
        {"rtp://192.0.2.9@232.1.1.1:5?dscp=0",
         "rtp group 232.1.1.1 5 16 from host 192.0.2.9 marked 0"},
        {"udp://[2001:db8::9]@[ff3e::1]:5", "raw group ff3e::1 5 16 from host 2001:db8::9"},
        {"udp://@[ff3e::1]:5?source=2001:db8::9", "raw group ff3e::1 5 16 from host 2001:db8::9"},
        {"udp://232.1.1.1:5?sources=encoder7", "raw group 232.1.1.1 5 16 from name encoder7"},
        {"udp://@239.1.1.1:5?pkt_size=1316&fifo_size=1000000&overrun_nonfatal=1&buffer_size=65536"
         "&reuse=1&reuse_addr&connect=0&ttl=4",
         "raw group 239.1.1.1 5 4 "},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(describe(parseStreamUrl(text)), expected) << text;
}

TEST(ToolUrl, RefusesWhatCannotBeMeantAndSaysWhatCan) {
    const std::pair<const char*, const char*> advice[] = {
        {"127.0.0.1:5000", "write udp://"},
        {"http://127.0.0.1:1", "write udp://"},
        {"udp://::1:5000", "udp://[::1]:5000"},
        {"udp://10.1:5", "encoder7"},
        {"udp://1.2.3.4:5?localaddr=eth0", "iface=NAME"},
        {"udp://1.2.3.4:5?ttl=256", "0 to 255"},
        {"udp://239.1.1.1:5?dscp=64", "0 to 63"},
        {"udp://239.1.1.1:5?foo=1", "source=HOST"},
        {"udp://239.1.1.1:5?pkt_size=1472", "1316"},
        {"udp://239.1.1.1:5?miface=eth0", "iface=NAME"},
        {"udp://239.1.1.1:5?timeout=1000000", "--idle-timeout"},
        {"rtp://239.1.1.1:5?rtcpport=6", "no RTCP"},
        {"udp://239.1.1.1:5?bitrate=1000000", "--bitrate"},
        {"udp://239.1.1.1:5?block=10.0.0.1", "source=ADDRESS"},
        {"udp://239.1.1.1:5?sources=10.0.0.1,10.0.0.2", "one source"},
        {"udp://10.0.0.1@239.1.1.1:5?source=10.0.0.2", "one source"},
        {"udp://10.0.0.1@10.0.0.2:5", "only a group"},
        {"udp://[::1]@239.1.1.1:5", "IPv4"},
        {"udp://239.1.1.1:5?iface=eth0&localaddr=10.0.0.1", "one of them"},
    };
    for (const auto& [text, expected] : advice) {
        try {
            ADD_FAILURE() << describe(parseStreamUrl(text));
        } catch (const UsageError& error) {
            EXPECT_NE(std::string(error.what()).find(expected), std::string::npos)
                << error.what() << ", without " << expected;
        }
    }
    std::istringstream urls(
        "udp:// udp://127.0.0.1 udp://1.2.3.4:0"
        " udp://1.2.3.4:65536 udp://1.2.3.4:-1 udp://1.2.3.4:5x udp://300.1.1.1:5 "
        "udp://0x7f000001:5"
        " udp://-host:5 udp://ho$t:5 udp://.:5"
        " udp://[::1:5000 udp://[::1]5000 udp://[]:5 udp://[1.2.3.4]:5 udp://[host]:5"
        " udp://[fe80::1%]:5 udp://1.2.3.4%lo:5 udp://239.1.1.2@239.1.1.1:5 udp://@@239.1.1.1:5"
        " udp://1.2.3.4:5?ttl udp://239.1.1.1:5?source udp://239.1.1.1:5?iface="
        " udp://1.2.3.4:5?localaddr=::1 udp://1.2.3.4:5?localaddr=239.1.1.1"
        " udp://239.1.1.1:5?iface=a234567890123456");
    for (std::string text; urls >> text;)
        EXPECT_THROW(parseStreamUrl(text), UsageError) << text;
    EXPECT_THROW(parseStreamUrl(""), UsageError);
    EXPECT_THROW(checkDestination(parseStreamUrl("udp://@:5000")), UsageError);
    for (const char* const option : {"localaddr=127.0.0.1", "iface=lo"})
        EXPECT_THROW(checkSource(parseStreamUrl(std::string("udp://127.0.0.1:5?") + option)),
                     UsageError);
}

// In the test's network there is the loopback interface only; its names are in every hosts file.
TEST(ToolUrl, NamesOfHostsAndInterfacesGiveWayToAddresses) {
    const struct {
        const char* url;
        const char* sent;      // remote and local address
        const char* received;  // empty = refused
    } cases[] = {
        {"udp://[::1]:5", "::1 ::", "::1 ::1"},
        {"udp://localhost:5?localaddr=127.0.0.1", "127.0.0.1 127.0.0.1", ""},
        {"udp://239.1.1.1:5?iface=lo", "239.1.1.1 127.0.0.1", "239.1.1.1 127.0.0.1"},
        {"udp://[ff15::1]:5?iface=lo", "ff15::1%lo ::", "ff15::1%lo ::"},
        {"udp://[fe80::1]:5?iface=lo", "fe80::1%lo ::", ""},
        {"udp://239.1.1.1:5?source=localhost&dscp=34", "127.0.0.1@239.1.1.1?dscp=34 0.0.0.0",
         "127.0.0.1@239.1.1.1?dscp=34 0.0.0.0"},
    };
    const auto addresses = [](const RtpChannelConfig& config) {
        return fmt::format("{} {}", config.RemoteAddress, config.LocalAddress);
    };
    for (const auto& c : cases) {
        const StreamUrl url = parseStreamUrl(c.url);
        EXPECT_EQ(addresses(sendConfig(url)), c.sent) << c.url;
        if (*c.received != '\0')
            EXPECT_EQ(addresses(receiveConfig(url)), c.received) << c.url;
        else
            EXPECT_THROW(receiveConfig(url), UsageError) << c.url;
    }
    for (const char* const text : {"udp://no-such.invalid:5", "udp://239.1.1.1:5?iface=no-such",
                                   "udp://239.1.1.1:5?source=no-such.invalid"}) {
        try {
            lookUp(parseStreamUrl(text));
            ADD_FAILURE() << text;
        } catch (const Failure& failure) {
            EXPECT_NE(std::string(failure.what()).find("no-such"), std::string::npos);
        }
    }
    EXPECT_THROW(lookUp(parseStreamUrl("udp://localhost:5?source=127.0.0.1")), UsageError);
}

TEST(ToolQuantity, TakesDecimalsWithSuffixAndNothingElse) {
    EXPECT_EQ(parseQuantity("2500000"), 2500000u);
    EXPECT_EQ(parseQuantity("2.5M"), 2500000u);
    for (const char* text :
         {"", "k", "-1", "+1", "1e6", "0x10", "inf", "nan", "1kk", "99999999999G"})
        EXPECT_EQ(parseQuantity(text), std::nullopt) << text;
}

TEST(ToolQuantity, OneThingIsNotSeveral) {
    EXPECT_EQ(counted(0, "break") + ", " + counted(1, "break") + ", " + counted(2, "break"),
              "0 breaks, 1 break, 2 breaks");
}

TEST(ToolPackets, AreFoundBehindGarbage) {
    for (const size_t size : {188u, 204u}) {
        for (const size_t garbage : {0u, 1u, 203u, 1000u}) {
            Bytes data(garbage, 0x00);
            if (garbage > 0)
                data[garbage / 2] = 0x47;
            const Bytes stream = packets(6, size);
            data.insert(data.end(), stream.begin(), stream.end());
            const auto layout = findPackets(data);
            ASSERT_TRUE(layout) << size << " behind " << garbage;
            EXPECT_EQ(layout->packetSize, size);
            EXPECT_EQ(layout->offset, garbage);
        }
    }
    EXPECT_FALSE(findPackets(packets(2, 188)));
    Bytes broken = packets(20, 188);
    broken.resize(broken.size() + 77, 0x00);
    const Bytes rest = packets(20, 188);
    broken.insert(broken.end(), rest.begin(), rest.end());
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
                Bytes packet;
                PacketFields fields;
                if (i % 10 == 0) {
                    pcr += kStep + (i == 50 ? c.jump : 0);
                    fields.pcr = pcr % kEnd;
                    fields.discontinuous = i == 50 && c.announced;
                } else if (i % 10 == 5) {
                    fields.pid = 0x200;  // another programme's clock, seen for a shorter time
                    fields.pcr = i < 30 ? static_cast<uint64_t>(i) * 1000 : 0;
                }
                append(packet, fields, size);
                rate.add(packet.data());
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
    } cases[] = {{"noise", 3'000'000, 3'000'000, 0, 0, 0x100, 100'000},
                 {"wraps", 3'000'000, 3'000'000, kEnd - 27'000'000, 0, 0x100, 0},
                 {"jumps back", 3'000'000, 3'000'000, 900'000'000, kEnd - 800'000'000, 0x100, 0},
                 {"other clock", 3'000'000, 3'000'000, 0, 1'000'000, 0x200, 0},
                 {"slower", 5'000'000, 2'000'000, 0, 0, 0x100, 0},
                 {"faster, spliced", 2'000'000, 5'000'000, 7, 900'000'000, 0x300, 0}};
    for (const auto& c : cases) {
        RateFollower follower(188);
        std::vector<uint32_t> told;
        double time = 0;
        for (uint64_t i = 0; time < 8.0; ++i) {
            const bool second = time >= 4.0;
            Bytes packet;
            PacketFields fields;
            if (i % 20 == 0) {
                fields.pid = second ? c.secondPid : fields.pid;
                const auto pcr = static_cast<uint64_t>(time * 27e6) + i / 20 % 2 * c.noise;
                fields.pcr = (c.start + (second ? c.jump : 0) + pcr) % kEnd;
            }
            append(packet, fields);
            follower.add(packet.data());
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
        {"in order", Packets{{.counter = 14}, {.counter = 15}, {.counter = 0}}, 0},
        {"one missing", Packets{{.counter = 1}, {.counter = 3}, {.counter = 4}}, 1},
        {"duplicate", Packets{{.counter = 1}, {.counter = 1}, {.counter = 2}}, 0},
        {"repeated duplicate", Packets{{.counter = 1}, {.counter = 1}, {.counter = 1}}, 1},
        {"announced", Packets{{.counter = 1}, {.counter = 9, .discontinuous = true}}, 0},
        {"no payload", Packets{{.counter = 1}, {.counter = 1, .payload = false}, {.counter = 2}},
         0},
        {"null packets", Packets{{.pid = 0x1FFF}, {.pid = 0x1FFF, .counter = 7}}, 0},
        {"two PIDs", Packets{{.pid = 1}, {.pid = 2, .counter = 9}, {.pid = 1, .counter = 1}}, 0},
    };
    for (const auto& [what, sequence, errors] : cases) {
        ContinuityCounter counter;
        for (const PacketFields& fields : sequence) {
            Bytes packet;
            append(packet, fields);
            counter.add(packet.data());
        }
        EXPECT_EQ(counter.errors(), errors) << what;
    }
}

}  // namespace
