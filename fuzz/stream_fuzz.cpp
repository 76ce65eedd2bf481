// Any bytes as a transport stream, in pieces of any length.
//
// Input: the length of the pieces in two bytes, then the stream.
#include "ConstantRate.h"
#include "Fuzz.h"
#include "StreamAnalyzer.h"

namespace {

// What comes out are packets at the right times, and it ends.
void Shape(std::span<const uint8_t> stream, size_t size, ts::InputKind kind, uint32_t rate) {
    ts::ConstantRate shaper(size, kind, {.rate_bps = rate});
    std::vector<uint8_t> packets(stream.begin(), stream.end());
    packets.resize(packets.size() / size * size);
    std::vector<uint8_t> datagrams(7 * size * 16);
    ts::Time now{0};
    const auto pull = [&] {
        for (int i = 0; i < 64; ++i) {
            const size_t bytes = shaper.pull(datagrams, now);
            Check(bytes % (7 * size) == 0);
            Check(bytes == 0 || shaper.rate());
            now += std::chrono::milliseconds(5);
        }
    };
    for (size_t at = 0; at < packets.size(); at += size) {
        packets[at] = 0x47;
        shaper.push(std::span(packets).subspan(at, size), now);
        if (at / size % 16 == 0)
            pull();
    }
    shaper.finish();
    for (int i = 0; i < 4096 && shaper.next(); ++i) {
        now = std::max(now, *shaper.next());
        pull();
    }
    Check(!shaper.next());
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input{{data, size}};
    const size_t piece = input.Word() + 1;
    const auto stream = input.Rest;
    const auto layout = findPackets(stream);
    Check(!layout || stream[layout->offset + 2 * layout->packetSize] == 0x47);

    PacketSplitter splitter;
    ContinuityCounter continuity;
    PcrBitrate shortRate(kPacketBytes);
    PcrBitrate longRate(kPacketWithParityBytes);
    auto next = stream.begin();  // packets come in the stream's order and do not overlap
    uint64_t packets = 0;
    StreamAnalyzer analyzer;
    while (!input.Rest.empty()) {
        const auto bytes = input.Bytes(piece);
        analyzer.feed(bytes, std::chrono::microseconds(bytes.size() * analyzer.bytes()));
        splitter.feed(bytes, [&](const uint8_t* packet) {
            const size_t length = splitter.packetSize();
            next = std::search(next, stream.end(), packet, packet + length);
            Check(next != stream.end());
            next += static_cast<long>(length);
            ++packets;
            continuity.add(packet);
            shortRate.add(packet);
            longRate.add(packet);
        });
    }
    const StreamReport report = analyzer.report();
    Check(report.packets == packets && report.bytes == stream.size());
    Check(splitter.packets() == packets && continuity.errors() <= packets);
    Check(shortRate.bitrate() <= longRate.bitrate());
    const auto kind = piece % 2 == 0 ? ts::InputKind::kFile : ts::InputKind::kLive;
    Shape(stream, piece % 4 < 2 ? kPacketBytes : kPacketWithParityBytes, kind, 100'000'000);
    return 0;
}
