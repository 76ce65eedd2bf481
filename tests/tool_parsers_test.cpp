// What the tool reads from the command line and from streams.

#include <fmt/format.h>

#include <array>

#include "PacketSieve.h"
#include "ProcessSupport.h"
#include "StreamSupport.h"
#include "TransportStream.h"
#include "base/Errors.h"
#include "base/Quantity.h"
#include "media/StreamUrl.h"

namespace {

// What a URL means, or why it is refused.
std::string describe(const StreamUrl& url) {
    const auto optional = [](const char* word, const std::string& value) {
        return value.empty() ? "" : word + value;
    };
    return fmt::format("{} {} {} {} {}{}{}{}{}{}", url.rtp ? "rtp" : "raw",
                       url.hostIsName  ? "name"
                       : url.multicast ? "group"
                                       : "host",
                       url.host, url.port, url.ttl, optional(" at ", url.localAddress),
                       optional(url.sourceIsName ? " from name " : " from host ", url.source),
                       optional(" on ", url.interface),
                       url.dscp ? fmt::format(" marked {}", *url.dscp) : "",
                       url.fec ? " with FEC" : "");
}

std::string describe(const std::string& text) try {
    const std::vector<StreamUrl> paths = parsePaths(text);
    std::string all;
    for (const StreamUrl& url : paths)
        all += (all.empty() ? "" : " and ") + describe(url);
    if (paths.size() > 1 || paths.front().reorder_ms)
        all += fmt::format(" in order within {}", reorderWindow(paths).count());
    return all;
} catch (const UsageError& error) {
    return std::string("refused: ") + error.what();
}

TEST(ToolUrl, MeansWhatTheFieldWritesOrIsRefusedWithAHint) {
    for (const std::string& row : Cases("stream_urls.txt")) {
        const size_t gap = row.find(" = ");
        const std::string found = describe(row.substr(0, gap)), expected = row.substr(gap + 3);
        if (expected.starts_with("refused")) {
            EXPECT_TRUE(found.starts_with("refused")) << row;
            const std::string hint = expected.substr(std::min<size_t>(expected.size(), 9));
            EXPECT_NE(found.find(hint), std::string::npos) << row << '\n' << found;
        } else {
            EXPECT_EQ(found, expected) << row;
        }
    }
    for (const char* const url : {"udp://@:5000", "rtp://239.1.1.1:5?reorder=0"})
        EXPECT_THROW(checkDestination(parseStreamUrl(url)), UsageError) << url;
    EXPECT_THROW(parseStreamUrl("rtp://239.1.1.1:5+rtp://239.1.1.2:5"), UsageError);
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

// In the test's network there is the loopback interface only.
TEST(ToolUrl, NamesOfHostsAndInterfacesGiveWayToAddresses) {
    std::ofstream("/tmp/hosts") << "127.0.0.1 localhost\n::1 localhost\n"
                                   "fd09::2 encoder.test\n232.1.1.1 group.test\n";
    ASSERT_EQ(system("mount --bind /tmp/hosts /etc/hosts"), 0);
    const std::array<std::string, 3> cases[] = {
        // URL, remote and local address of both directions
        {"udp://[::1]:5", "::1 ::", "::1 ::1"},
        {"udp://localhost:5?localaddr=127.0.0.1", "127.0.0.1 127.0.0.1", "refused"},
        {"udp://localhost:5?localaddr=[::1]", "::1 ::1", "refused"},
        {"udp://encoder.test:5", "fd09::2 ::", "fd09::2 fd09::2"},
        {"udp://@group.test:5?iface=lo", "232.1.1.1 127.0.0.1", "232.1.1.1 127.0.0.1"},
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
            std::string data(garbage, '\0');
            if (garbage > 0)
                data[garbage / 2] = 0x47;
            for (int i = 0; i < 6; ++i)
                data += Packet({}, size);
            const auto layout = findPackets(BytesOf(data));
            ASSERT_TRUE(layout) << size << " behind " << garbage;
            EXPECT_EQ(layout->packetSize, size);
            EXPECT_EQ(layout->offset, garbage);
        }
    }
    EXPECT_FALSE(findPackets(BytesOf(Packet({}) + Packet({}))));
    std::string broken;
    for (int i = 0; i < 40; ++i)
        broken += Packet({}) + std::string(i == 19 ? 77 : 0, '\0');
    PacketSplitter splitter;
    for (const uint8_t& byte : BytesOf(broken))
        splitter.feed({&byte, 1}, [](const uint8_t* packet) { EXPECT_EQ(packet[0], 0x47); });
    EXPECT_EQ(splitter.packets(), 40u);
    EXPECT_EQ(splitter.syncLosses(), 1u);
}

std::string RtpHeader(uint8_t first, uint8_t payloadType, const std::string& behind) {
    return std::string{static_cast<char>(first), static_cast<char>(payloadType)} +
           std::string("\1\2\3\4G\6\7\10\11\12", 10) + behind;
}

TEST(PacketSieve, GivesAllPacketsAndNothingElseHoweverTheStreamIsCut) {
    const std::string sample = Contents(SAMPLE_PATH).substr(0, 188 * 420);
    const std::string header = RtpHeader(0x80, 33, "");
    const std::string extended = RtpHeader(0x92, 96, std::string("GABCDEFG\0\1\0\2extended", 20));
    const std::tuple<size_t, size_t, std::string, std::string, uint64_t> cases[] = {
        // packet size, packets in a datagram, in front of and behind them; gaps
        {188, 7, "", "", 0},
        {188, 7, header, "", 60},
        {188, 1, extended, "", 420},
        {188, 3, extended, "", 140},
        {188, 7, "", std::string("\0\0\0\4", 4), 60},
        {204, 7, header, "", 60},
        {204, 2, extended, "", 210}};
    for (const auto& [size, count, front, back, gaps] : cases) {
        std::string stream, packets;
        for (size_t i = 0; i < 420; ++i) {
            const std::string packet =
                sample.substr(i * 188, 188) + std::string(size - 188, static_cast<char>(i));
            stream += (i % count == 0 ? front : "") + packet + (i % count == count - 1 ? back : "");
            packets += packet;
        }
        for (const size_t piece : {size_t{1}, size_t{61}, size_t{1316}, stream.size()}) {
            PacketSieve sieve;
            std::string taken;
            size_t begin = 0;
            for (size_t end = 0; end < stream.size();) {
                end = std::min(end + piece, stream.size());
                for (;;) {
                    const auto run = sieve.next(BytesOf(stream).subspan(begin, end - begin),
                                                end == stream.size());
                    if (run.skip + run.length == 0)
                        break;
                    taken += stream.substr(begin + run.skip, run.length);
                    begin += run.skip + run.length;
                }
            }
            ASSERT_TRUE(taken == packets) << size << ' ' << count << ' ' << piece;
            EXPECT_EQ(sieve.packets(), 420u);
            EXPECT_EQ(sieve.packetSize(), size);
            EXPECT_EQ(sieve.gaps(), gaps) << size << ' ' << count << ' ' << piece;
            EXPECT_EQ(sieve.skippedBytes(), stream.size() - packets.size());
            EXPECT_EQ(sieve.continuityErrors(), 0u);
        }
    }
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
                rate.add(BytesOf(Packet(fields, size)).data());
            }
            EXPECT_EQ(rate.bitrate(), 1000000 * size / 188) << c.what << ", " << size;
        }
    }
    EXPECT_EQ(PcrBitrate(188).bitrate(), std::nullopt);
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
            counter.add(BytesOf(Packet(fields)).data());
        EXPECT_EQ(counter.errors(), errors) << what;
    }
}

}  // namespace
