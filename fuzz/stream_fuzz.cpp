// Any bytes as a transport stream, in pieces of any length.
//
// Input: the length of the pieces in two bytes, then the stream.
#include "Fuzz.h"
#include "StreamAnalyzer.h"

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
            Check(packet[0] == 0x47 && next != stream.end());
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
    return 0;
}
